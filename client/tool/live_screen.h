// A page on the terminal that is drawn over in place. Each page goes out in one write
// and erases nothing before it overwrites it, so that it does not flicker.
#pragma once

#include <span>
#include <string>

#include "client/tool/text_style.h"
#include "platform/console.h"

namespace talvorn {

struct ScreenLine {
  std::string text;  // safe for a terminal
  TextStyle style = TextStyle::kPlain;
};

// What clears the terminal and hides the cursor, and what puts it back.
[[nodiscard]] std::string EnterScreen();
[[nodiscard]] std::string LeaveScreen();

// The page that shows `lines` from the top left corner, cut to the terminal. When not
// all of them fit, a last line says how many are missing.
[[nodiscard]] std::string ComposePage(std::span<const ScreenLine> lines,
                                      platform::TerminalSize size, bool styles);

}  // namespace talvorn
