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
constexpr std::string_view kEraseBelow = "\x1b[J";
constexpr std::string_view kHideCursor = "\x1b[?25l";
constexpr std::string_view kShowCursor = "\x1b[?25h";
constexpr std::string_view kNoWrap = "\x1b[?7l";
constexpr std::string_view kWrap = "\x1b[?7h";

}  // namespace

std::string EnterScreen() { return Concat({kHideCursor, kNoWrap, kHome, kEraseScreen}); }

std::string LeaveScreen() { return Concat({kWrap, kShowCursor, "\n"}); }

std::string ComposePage(std::span<const ScreenLine> lines, platform::TerminalSize size,
                        bool styles) {
  const std::size_t rows = std::max<std::size_t>(size.rows, 1);
  const std::size_t shown = lines.size() > rows ? rows - 1 : lines.size();
  // One column less: after the last one the cursor stays on it, and what erases the
  // rest of the line would take that character away.
  const std::size_t columns = std::max<std::size_t>(size.columns, 1) - 1;

  std::string page(kHome);
  const auto add = [&](const ScreenLine& line) {
    if (page.size() > kHome.size()) page.append("\r\n");
    page.append(Styled(CutToWidth(line.text, columns), styles ? line.style : TextStyle::kPlain));
    page.append(kEraseRestOfLine);
  };
  for (const ScreenLine& line : lines.first(shown)) add(line);
  if (shown < lines.size())
    add({Concat({"... and ", std::to_string(lines.size() - shown), " more"}), TextStyle::kFaint});
  return page.append(kEraseBelow);
}

}  // namespace talvorn
