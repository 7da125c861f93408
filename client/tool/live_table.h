// The table that is drawn over in place, with its marks, its filter and its place in the list.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "client/tool/live_screen.h"
#include "client/tool/row_history.h"
#include "client/tool/session.h"
#include "client/tool/text_style.h"
#include "client/tool/tool_options.h"
#include "client/tool/views.h"
#include "platform/console.h"
#include "platform/keyboard.h"

namespace talvorn {

class LiveTable {
 public:
  // `hasKeys`: keys come, and the table says which ones do what.
  LiveTable(const ToolOptions& options, bool hasKeys);

  // What the locator has answered just now, or why it does not.
  void Show(View view);
  void ShowSilence(Trouble trouble) { trouble_ = std::move(trouble); }

  // False when the user wants to end.
  [[nodiscard]] bool Press(const platform::KeyPress& press);

  // What draws the screen of this size.
  [[nodiscard]] std::string Page(platform::TerminalSize size);

 private:
  void Move(platform::Key key);
  void EditFilter(const platform::KeyPress& press);
  [[nodiscard]] std::vector<ScreenLine> LinesAbove() const;
  [[nodiscard]] ScreenLine LineBelow(std::size_t count) const;
  [[nodiscard]] std::string IntervalText() const;

  const ToolOptions& options_;
  const bool hasKeys_;
  const bool styles_ = OutputTakesStyles();
  std::optional<Trouble> trouble_;  // none: the locator answers
  View view_;                       // as last answered, without its rows
  std::vector<MarkedRow> marked_;
  RowHistory history_;
  std::string filter_;
  bool editsFilter_ = false;
  std::size_t top_ = 0;    // the first row that is shown
  std::size_t shown_ = 1;  // rows on the last page
};

}  // namespace talvorn
