#include "client/tool/live_screen.h"

#include <algorithm>
#include <string_view>

#include "command_line/concat.h"
#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

// Control sequences of ECMA-48 and of the VT terminals that every emulator follows.
constexpr std::string_view kHome = "\x1b[H";
constexpr std::string_view kEraseScreen = "\x1b[2J";
constexpr std::string_view kEraseRestOfLine = "\x1b[K";
constexpr std::string_view kEraseBelow = "\x1b[J";
constexpr std::string_view kHideCursor = "\x1b[?25l";
constexpr std::string_view kShowCursor = "\x1b[?25h";
constexpr std::string_view kNoWrap = "\x1b[?7l";
constexpr std::string_view kWrap = "\x1b[?7h";
constexpr std::string_view kResetStyle = "\x1b[0m";

std::string_view StyleSequence(LineStyle style) {
  switch (style) {
    case LineStyle::kStrong:
      return "\x1b[1m";
    case LineStyle::kGood:
      return "\x1b[32m";
    case LineStyle::kAttention:
      return "\x1b[33m";
    case LineStyle::kFaint:
      return "\x1b[2m";
    case LineStyle::kPlain:
      break;
  }
  return {};
}

}  // namespace

std::string EnterScreen() { return Concat({kHideCursor, kNoWrap, kHome, kEraseScreen}); }

std::string LeaveScreen() { return Concat({kWrap, kShowCursor, "\n"}); }

std::string ComposePage(std::span<const ScreenLine> lines, platform::TerminalSize size,
                        bool colours) {
  const std::size_t rows = std::max<std::size_t>(size.rows, 1);
  const std::size_t shown = lines.size() > rows ? rows - 1 : lines.size();
  // One column less: after the last one the cursor stays on it, and what erases the
  // rest of the line would take that character away.
  const std::size_t columns = std::max<std::size_t>(size.columns, 1) - 1;

  std::string page(kHome);
  const auto add = [&](const ScreenLine& line) {
    const std::string_view style = colours ? StyleSequence(line.style) : std::string_view{};
    if (page.size() > kHome.size()) page.append("\r\n");
    page.append(style).append(CutToWidth(line.text, columns));
    if (!style.empty()) page.append(kResetStyle);
    page.append(kEraseRestOfLine);
  };
  for (const ScreenLine& line : lines.first(shown)) add(line);
  if (shown < lines.size())
    add({Concat({"... and ", std::to_string(lines.size() - shown), " more"}), LineStyle::kFaint});
  return page.append(kEraseBelow);
}

}  // namespace talvorn
