// Aligned tables of text for people.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace talvorn {

// Cells are UTF-8 without controls. Columns are as wide as what stands in them, unless the table
// is fitted to a width.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);

  // Missing cells are empty; cells beyond the headings are dropped.
  void AddRow(std::vector<std::string> cells);

  // Makes no line wider than `width`: leaves whole columns out, those of `expendable` (headings)
  // in that order, and cuts what stands in the widest of the others.
  void FitTo(std::size_t width, std::span<const std::string_view> expendable);

  [[nodiscard]] std::size_t size() const { return rows_.size() - 1; }

  // The line of the headings, and of a row, without blanks at their ends.
  [[nodiscard]] std::string HeadingLine() const { return Line(rows_.front()); }
  [[nodiscard]] std::string RowLine(std::size_t row) const { return Line(rows_[row + 1]); }
  // All of them as one text.
  [[nodiscard]] std::string Text() const;

 private:
  [[nodiscard]] std::string Line(const std::vector<std::string>& cells) const;
  [[nodiscard]] std::size_t Width() const;

  std::vector<std::vector<std::string>> rows_;  // the headings first
  std::vector<std::size_t> widths_;             // 0: left out
};

}  // namespace talvorn
