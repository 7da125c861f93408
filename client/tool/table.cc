#include "client/tool/table.h"

#include <algorithm>
#include <utility>

#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

constexpr std::size_t kGap = 2;

}  // namespace

Table::Table(std::vector<std::string> headings) { rows_.push_back(std::move(headings)); }

void Table::AddRow(std::vector<std::string> cells) {
  cells.resize(rows_.front().size());
  rows_.push_back(std::move(cells));
}

std::vector<std::string> Table::Lines() const {
  std::vector<std::size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], DisplayWidth(row[i]));
  }
  std::vector<std::string> lines;
  lines.reserve(rows_.size());
  for (const auto& row : rows_) {
    std::string line;
    std::size_t pending = 0;  // blanks that count only when something follows
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (!row[i].empty()) {
        line.append(pending, ' ').append(row[i]);
        pending = 0;
      }
      pending += widths[i] - DisplayWidth(row[i]) + kGap;
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

std::string Table::Text() const {
  std::string text;
  for (const std::string& line : Lines()) text.append(line).append("\n");
  return text;
}

}  // namespace talvorn
