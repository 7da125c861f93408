#include "client/tool/table.h"

#include <algorithm>
#include <utility>

#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

constexpr std::size_t kGap = 2;
// A column is cut down to this before another one is left out.
constexpr std::size_t kNarrowest = 8;

}  // namespace

Table::Table(std::vector<std::string> headings) {
  for (const std::string& heading : headings) widths_.push_back(DisplayWidth(heading));
  rows_.push_back(std::move(headings));
}

void Table::AddRow(std::vector<std::string> cells) {
  cells.resize(widths_.size());
  for (std::size_t i = 0; i < cells.size(); ++i)
    widths_[i] = std::max(widths_[i], DisplayWidth(cells[i]));
  rows_.push_back(std::move(cells));
}

std::size_t Table::Width() const {
  std::size_t width = 0;
  for (const std::size_t column : widths_) width += column == 0 ? 0 : column + kGap;
  return width == 0 ? 0 : width - kGap;
}

void Table::FitTo(std::size_t width, std::span<const std::string_view> expendable) {
  for (const std::string_view heading : expendable) {
    if (Width() <= width) return;
    const auto column = std::ranges::find(rows_.front(), heading) - rows_.front().begin();
    if (static_cast<std::size_t>(column) < widths_.size())
      widths_[static_cast<std::size_t>(column)] = 0;
  }
  while (Width() > width) {
    const auto widest = std::ranges::max_element(widths_);
    if (*widest <= kNarrowest) return;
    const std::size_t excess = Width() - width;
    *widest = *widest > excess + kNarrowest ? *widest - excess : kNarrowest;
  }
}

std::string Table::Line(const std::vector<std::string>& cells) const {
  std::string line;
  std::size_t pending = 0;  // blanks that count only when something follows
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (widths_[i] == 0) continue;
    const std::string cell = CutToWidth(cells[i], widths_[i]);
    if (!cell.empty()) {
      line.append(pending, ' ').append(cell);
      pending = 0;
    }
    pending += widths_[i] - DisplayWidth(cell) + kGap;
  }
  return line;
}

std::string Table::Text() const {
  std::string text;
  for (const auto& row : rows_) text.append(Line(row)).append("\n");
  return text;
}

}  // namespace talvorn
