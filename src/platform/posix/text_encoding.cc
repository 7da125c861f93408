#include "platform/text_encoding.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace talvorn::platform {
namespace {

// Windows-1252 from 0x80 to 0x9F; every other byte is the character of its number.
// A byte without character stands for the control of the same number.
constexpr unsigned char kSpecialFirst = 0x80;
constexpr std::array<char16_t, 32> kSpecial = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;

void AppendUtf8(std::string& text, char32_t c) {
  constexpr char32_t kLeads[] = {0, 0xC0, 0xE0, 0xF0};
  int more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < kFirstSupplementary ? 2 : 3;
  text += static_cast<char>(kLeads[more] | c >> 6 * more);
  while (more-- > 0) text += static_cast<char>(0x80 | (c >> 6 * more & 0x3F));
}

// Takes the character at `position`, which is inside of `text`. U+FFFD for a sequence that
// is none: then the longest beginning of one is passed over.
char32_t NextUtf8(std::string_view text, std::size_t& position) {
  const auto byteAt = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byteAt(position++);
  if (lead < 0x80) return lead;
  if (lead < 0xC2 || lead > 0xF4) return kReplacement;
  const int size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  char32_t c = lead & (0x7Fu >> size);
  // What the second byte may be depends on the first: neither overlong forms, nor
  // surrogates, nor numbers past the last character.
  unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  for (int more = size - 1; more > 0; --more) {
    if (position == text.size() || byteAt(position) < low || byteAt(position) > high)
      return kReplacement;
    c = c << 6 | (byteAt(position++) & 0x3Fu);
    low = 0x80;
    high = 0xBF;
  }
  return c;
}

}  // namespace

std::u16string NarrowToWide(std::string_view text) {
  std::u16string wide;
  wide.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const unsigned int special = byte - unsigned{kSpecialFirst};
    wide.push_back(special < kSpecial.size() ? kSpecial[special] : char16_t{byte});
  }
  return wide;
}

std::string WideToNarrow(std::u16string_view text) {
  std::string narrow;
  narrow.reserve(text.size());
  while (!text.empty()) {
    const char32_t c = TakeCharacter(text);
    const auto special = std::ranges::find(kSpecial, c);
    const bool plain = c < kSpecialFirst || (c > 0x9F && c <= 0xFF);
    narrow += plain ? static_cast<char>(c)
              : special == kSpecial.end()
                  ? '?'
                  : static_cast<char>(kSpecialFirst + (special - kSpecial.begin()));
  }
  return narrow;
}

std::string WideToUtf8(std::u16string_view text) {
  std::string utf8;
  utf8.reserve(text.size());
  while (!text.empty()) {
    const char32_t c = TakeCharacter(text);
    const bool lone = c >= 0xD800 && c <= 0xDFFF;
    AppendUtf8(utf8, lone ? kReplacement : c);
  }
  return utf8;
}

std::u16string Utf8ToWide(std::string_view text) {
  std::u16string wide;
  wide.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const char32_t c = NextUtf8(text, position);
    if (c < kFirstSupplementary) {
      wide.push_back(static_cast<char16_t>(c));
    } else {
      wide.push_back(static_cast<char16_t>(0xD800 + ((c - kFirstSupplementary) >> 10)));
      wide.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    }
  }
  return wide;
}

}  // namespace talvorn::platform
