// UTF-16 texts from settings and INI files: decoding, comparison, trimming.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// The text in capitals, as names without case are compared: ASCII and Latin-1.
[[nodiscard]] std::u16string FoldCase(std::u16string_view text);

[[nodiscard]] bool EqualWithoutCase(std::u16string_view a, std::u16string_view b);

[[nodiscard]] constexpr bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t'; }

enum class ByteOrder { kLittleEndian, kBigEndian };

// A last odd byte is left out.
[[nodiscard]] std::u16string DecodeUtf16(std::string_view bytes, ByteOrder order);

// Without the blanks at both ends.
[[nodiscard]] std::u16string_view TrimBlanks(std::u16string_view text);

}  // namespace talvorn::platform
