#include "command_line/terminal_text.h"

#include <algorithm>
#include <span>

#include "command_line/character_widths.h"
#include "platform/foreign_text.h"
#include "platform/terminal_escape.h"
#include "platform/text_encoding.h"

namespace talvorn {
namespace {

// In ranges that ascend.
bool IsIn(std::span<const CharacterRange> ranges, char32_t c) {
  const auto range = std::ranges::lower_bound(ranges, c, {}, &CharacterRange::last);
  return range != ranges.end() && c >= range->first;
}

bool IsPlainAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

std::size_t WidthOf(char32_t c) {
  if (c < 0x300) return 1;
  if (IsIn(kZeroWidth, c)) return 0;
  return IsIn(kDoubleWidth, c) ? 2 : 1;
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
