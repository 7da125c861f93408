#include "command_line/terminal_text.h"

#include <algorithm>
#include <array>

#include "platform/foreign_text.h"
#include "platform/terminal_escape.h"
#include "platform/text_encoding.h"

namespace talvorn {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

template <std::size_t kCount>
bool IsIn(const std::array<Range, kCount>& ranges, char32_t c) {
  return std::ranges::any_of(ranges, [c](Range r) { return c >= r.first && c <= r.last; });
}

constexpr std::array<Range, 8> kWide{{{0x1100, 0x115F},
                                      {0x2E80, 0xA4CF},
                                      {0xAC00, 0xD7A3},
                                      {0xF900, 0xFAFF},
                                      {0xFE30, 0xFE6F},
                                      {0xFF00, 0xFF60},
                                      {0x1F300, 0x1FAFF},
                                      {0x20000, 0x3FFFD}}};
constexpr std::array<Range, 5> kCombining{
    {{0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x20D0, 0x20FF}, {0xFE20, 0xFE2F}}};

bool IsPlainAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

std::size_t WidthOf(char32_t c) {
  if (c < 0x300) return 1;
  if (IsIn(kCombining, c)) return 0;
  return IsIn(kWide, c) ? 2 : 1;
}

}  // namespace

std::string EscapeForTerminal(std::string_view utf8) {
  if (IsPlainAscii(utf8)) return std::string(utf8);
  return platform::EscapeForTerminal(platform::Utf8ToWide(utf8));
}

std::string EscapeForeign(std::string_view text) {
  if (IsPlainAscii(text)) return std::string(text);
  return platform::EscapeForTerminal(platform::ForeignToWide(text));
}

std::size_t DisplayWidth(std::string_view utf8) {
  if (IsPlainAscii(utf8)) return utf8.size();
  const std::u16string wide = platform::Utf8ToWide(utf8);
  std::size_t width = 0;
  for (std::u16string_view rest = wide; !rest.empty();)
    width += WidthOf(platform::TakeCharacter(rest));
  return width;
}

std::string CutToWidth(std::string_view utf8, std::size_t width) {
  if (DisplayWidth(utf8) <= width) return std::string(utf8);
  if (width == 0) return {};
  const std::u16string wide = platform::Utf8ToWide(utf8);
  std::u16string_view rest = wide;
  std::size_t used = 1;  // the ellipsis
  std::size_t kept = 0;
  while (!rest.empty()) {
    used += WidthOf(platform::TakeCharacter(rest));
    if (used > width) break;
    kept = wide.size() - rest.size();
  }
  return platform::WideToUtf8(std::u16string_view(wide).substr(0, kept)) + "\u2026";
}

}  // namespace talvorn
