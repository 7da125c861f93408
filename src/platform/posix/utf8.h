// Decoding of UTF-8, one character at a time.
#pragma once

#include <cstddef>
#include <string_view>

namespace talvorn::platform {

inline constexpr char32_t kIllFormed = 0xFFFFFFFF;

// The character at `position`, which is inside of `text`, and `position` moved past
// it. kIllFormed for a sequence that is none, of which the longest beginning of a
// character is passed over.
[[nodiscard]] char32_t NextUtf8(std::string_view text, std::size_t& position);

[[nodiscard]] bool IsWellFormedUtf8(std::string_view text);

}  // namespace talvorn::platform
