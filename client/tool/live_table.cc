#include "client/tool/live_table.h"

#include <algorithm>
#include <string_view>

#include "client/tool/arrangement.h"
#include "client/tool/table.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/clock.h"

namespace talvorn {
namespace {

// So long a row stays marked, or on the screen when it has gone.
constexpr std::uint64_t kMarkMs = 4'000;

std::string MarkText(RowMark mark) {
  switch (mark) {
    case RowMark::kNew:
      return "+";
    case RowMark::kChanged:
      return "*";
    case RowMark::kGone:
      return "-";
    case RowMark::kNone:
      break;
  }
  return {};
}

TextStyle StyleOf(RowMark mark) {
  switch (mark) {
    case RowMark::kNew:
      return TextStyle::kGood;
    case RowMark::kChanged:
      return TextStyle::kAttention;
    case RowMark::kGone:
      return TextStyle::kFaint;
    case RowMark::kNone:
      break;
  }
  return TextStyle::kPlain;
}

std::vector<std::string> WithMark(std::string mark, std::vector<std::string> cells) {
  cells.insert(cells.begin(), std::move(mark));
  return cells;
}

}  // namespace

LiveTable::LiveTable(const ToolOptions& options, bool hasKeys)
    : options_(options), hasKeys_(hasKeys), history_(kMarkMs) {}

void LiveTable::Show(View view) {
  trouble_.reset();
  KeepMatching(view.rows, options_.pattern);
  marked_ = history_.Update(view.rows, platform::MonotonicMs());
  SortRows(marked_, view.headings, options_.sortBy);
  view.rows.clear();
  view_ = std::move(view);
}

bool LiveTable::Press(const platform::KeyPress& press) {
  using platform::Key;
  if (editsFilter_) {
    EditFilter(press);
  } else if (press.key == Key::kCharacter) {
    if (press.character == "q") return false;
    editsFilter_ = press.character == "/";
    if (press.character == " ") Move(Key::kPageDown);
  } else if (press.key == Key::kEscape) {
    filter_.clear();
  } else {
    Move(press.key);
  }
  return true;
}

void LiveTable::EditFilter(const platform::KeyPress& press) {
  using platform::Key;
  constexpr std::size_t kLongest = 100;
  top_ = 0;
  if (press.key == Key::kCharacter) {
    if (filter_.size() < kLongest) filter_.append(press.character);
  } else if (press.key == Key::kBackspace) {
    while (!filter_.empty() && (filter_.back() & 0xC0) == 0x80) filter_.pop_back();
    if (!filter_.empty()) filter_.pop_back();
  } else {
    editsFilter_ = false;
    if (press.key == Key::kEscape) filter_.clear();
  }
}

// Page() sees to it that the place is one there is.
void LiveTable::Move(platform::Key key) {
  using platform::Key;
  const auto back = [this](std::size_t rows) { top_ -= std::min(rows, top_); };
  if (key == Key::kUp) back(1);
  if (key == Key::kDown) top_ += 1;
  if (key == Key::kPageUp) back(shown_);
  if (key == Key::kPageDown) top_ += shown_;
  if (key == Key::kHome) top_ = 0;
  if (key == Key::kEnd) top_ = marked_.size();
}

std::string LiveTable::Page(platform::TerminalSize size) {
  std::vector<MarkedRow> rows = marked_;
  KeepMatching(rows, filter_);
  std::vector<ScreenLine> lines = LinesAbove();
  const std::size_t around = lines.size() + 2;  // the headings, and the line below
  shown_ = size.rows > around ? size.rows - around : 1;
  top_ = std::min(top_, rows.size() - std::min(rows.size(), shown_));

  if (!rows.empty()) {
    Table table(WithMark(" ", SelectCells(view_.headings, view_.headings, options_.columns)));
    for (const MarkedRow& row : rows)
      table.AddRow(
          WithMark(MarkText(row.mark), SelectCells(view_.headings, row.cells, options_.columns)));
    table.FitTo(size.columns - std::min(size.columns, 1U), view_.expendable);
    lines.push_back({table.HeadingLine(), TextStyle::kStrong});
    for (std::size_t i = top_; i < std::min(rows.size(), top_ + shown_); ++i)
      lines.push_back({table.RowLine(i), trouble_ ? TextStyle::kFaint : StyleOf(rows[i].mark)});
  }
  lines.push_back(LineBelow(rows.size()));
  return ComposePage(lines, size, styles_);
}

// Old news in faint letters when the locator does not answer.
std::vector<ScreenLine> LiveTable::LinesAbove() const {
  const std::string now = TimeText(platform::SystemClock().LocalTime());
  std::vector<ScreenLine> lines = {{Concat({"TALVORN   ", trouble_ ? "no answer" : view_.title,
                                            "   ", now, "   ", IntervalText()}),
                                    TextStyle::kStrong},
                                   {}};
  if (trouble_) {
    lines.push_back({Concat({"Waiting: ", trouble_->what, "."}), TextStyle::kAttention});
    lines.push_back({trouble_->advice});
    lines.emplace_back();
  }
  return lines;
}

// The place in the list, the filter and the keys.
ScreenLine LiveTable::LineBelow(std::size_t count) const {
  if (editsFilter_) return {Concat({"/", EscapeForTerminal(filter_), "_"}), TextStyle::kStrong};
  std::string text;
  const std::size_t last = std::min(count, top_ + shown_);
  if (count > shown_)
    text = Concat({std::to_string(top_ + 1), "-", std::to_string(last), " of ",
                   std::to_string(count), "   "});
  if (!filter_.empty())
    text.append(Concat({count == 0 ? "nothing " : "", "with '", EscapeForTerminal(filter_), "', ",
                        "Esc shows all   "}));
  if (hasKeys_)
    text.append(count > shown_ ? "arrows move, / filters, q ends" : "/ filters, q ends");
  return {std::move(text), TextStyle::kFaint};
}

std::string LiveTable::IntervalText() const {
  const std::uint32_t ms = *options_.watchMs;
  const std::string end = hasKeys_ ? "" : ", Ctrl-C ends";
  return ms % 1'000 == 0 ? Concat({"every ", std::to_string(ms / 1'000), " s", end})
                         : Concat({"every ", std::to_string(ms), " ms", end});
}

}  // namespace talvorn
