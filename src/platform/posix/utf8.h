// Decoding of UTF-8, one character at a time.
#pragma once

#include <cstddef>
#include <string_view>

namespace talvorn::platform {

inline constexpr char32_t kIllFormed = 0xFFFFFFFF;

// Takes the character at `position`, which is inside of `text`. kIllFormed for a sequence that is
// none: then the longest beginning of one is passed over.
[[nodiscard]] char32_t NextUtf8(std::string_view text, std::size_t& position);

[[nodiscard]] bool IsWellFormedUtf8(std::string_view text);

}  // namespace talvorn::platform
