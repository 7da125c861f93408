// Comparison and trimming of UTF-16 texts from settings and INI files.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// The text in capitals, as names without case are compared: ASCII and Latin-1.
[[nodiscard]] std::u16string FoldCase(std::u16string_view text);

[[nodiscard]] bool EqualWithoutCase(std::u16string_view a, std::u16string_view b);

[[nodiscard]] constexpr bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t'; }

// Without the blanks at both ends.
[[nodiscard]] std::u16string_view TrimBlanks(std::u16string_view text);

}  // namespace talvorn::platform
