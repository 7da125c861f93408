// Conversions between the narrow code page of the system (Windows: ANSI; Linux:
// Windows-1252), UTF-8 and UTF-16.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

[[nodiscard]] std::u16string NarrowToWide(std::string_view text);
// Characters the code page lacks become '?', never a similar one.
[[nodiscard]] std::string WideToNarrow(std::u16string_view text);

// Takes the next character off the front of `text`, which is not empty; a lone surrogate
// stands for itself.
[[nodiscard]] constexpr char32_t TakeCharacter(std::u16string_view& text) {
  const char32_t first = text[0];
  const char32_t second = text.size() > 1 ? text[1] : 0;
  const bool pair = first >> 10 == 0xD800 >> 10 && second >> 10 == 0xDC00 >> 10;
  text.remove_prefix(pair ? 2 : 1);
  return pair ? 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00) : first;
}

// Ill-formed input becomes U+FFFD.
[[nodiscard]] std::string WideToUtf8(std::u16string_view text);
[[nodiscard]] std::u16string Utf8ToWide(std::string_view text);

}  // namespace talvorn::platform
