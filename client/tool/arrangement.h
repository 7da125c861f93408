// Which rows and columns of a table are shown, and in which order.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace talvorn {

// Whether a cell holds the pattern, in any case of ASCII letters; with * (any text) or ? (any
// character) in it the whole of a cell has to be so. UTF-8.
[[nodiscard]] bool IsMatch(std::string_view pattern, const std::vector<std::string>& cells);

// Numbers within texts by their value, so that 192.168.1.9 comes before 192.168.1.10.
[[nodiscard]] bool ComesBefore(std::string_view left, std::string_view right);

// Where a heading stands; the number of headings when it does not.
[[nodiscard]] std::size_t ColumnOf(const std::vector<std::string>& headings,
                                   std::string_view heading);

// Rows have `cells`.
template <class Row>
void KeepMatching(std::vector<Row>& rows, std::string_view pattern) {
  if (pattern.empty()) return;
  std::erase_if(rows, [pattern](const Row& row) { return !IsMatch(pattern, row.cells); });
}

// By the column under this heading; an empty one leaves them as they are.
template <class Row>
void SortRows(std::vector<Row>& rows, const std::vector<std::string>& headings,
              std::string_view heading) {
  const std::size_t column = ColumnOf(headings, heading);
  if (column == headings.size()) return;
  std::ranges::stable_sort(
      rows, ComesBefore, [column](const Row& row) { return std::string_view(row.cells[column]); });
}

// The cells, or headings, under these headings; all for none.
[[nodiscard]] std::vector<std::string> SelectCells(const std::vector<std::string>& headings,
                                                   const std::vector<std::string>& cells,
                                                   const std::vector<std::string>& selected);

}  // namespace talvorn
