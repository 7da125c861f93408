// Aligned tables of text for people.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace talvorn {

// Cells are UTF-8 without controls. Columns are as wide as what stands in them.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);

  // Missing cells are empty; cells beyond the headings are dropped.
  void AddRow(std::vector<std::string> cells);

  // The line of the headings and one line for each row, without blanks at their ends.
  [[nodiscard]] std::vector<std::string> Lines() const;
  // The same lines as one text.
  [[nodiscard]] std::string Text() const;

 private:
  std::vector<std::vector<std::string>> rows_;  // the headings first
};

}  // namespace talvorn
