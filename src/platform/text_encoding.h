// Conversions between the narrow code page of the system (Windows: ANSI; Linux:
// Windows-1252), UTF-8 and UTF-16.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

[[nodiscard]] std::u16string NarrowToWide(std::string_view text);
// Characters the code page lacks become '?', never a similar one.
[[nodiscard]] std::string WideToNarrow(std::u16string_view text);

// Ill-formed input becomes U+FFFD.
[[nodiscard]] std::string WideToUtf8(std::u16string_view text);
[[nodiscard]] std::u16string Utf8ToWide(std::string_view text);

}  // namespace talvorn::platform
