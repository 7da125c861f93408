// Tables that fit, and rows that are found and sorted.
#include "client/tool/table.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "client/tool/arrangement.h"
#include "client/tool/live_table.h"
#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

using platform::Key;

Table Wide() {
  Table table({"SERIAL", "ALIAS", "STATUS", "HOST"});
  table.AddRow({"1234567", "Press \u65E5\u672C\u8A9E", "BUSY", "station-01"});
  table.AddRow({"7", std::string(255, 'x'), "-", ""});
  return table;
}

TEST(Table, IsAlignedByWhatStandsInIt) {
  Table table({"A", "B"});
  table.AddRow({"\u65E5", "1"});
  table.AddRow({"xyz"});
  EXPECT_EQ(table.Text(), "A    B\n\u65E5   1\nxyz\n");
}

TEST(Table, LeavesColumnsOutAndThenCuts) {
  constexpr std::string_view kExpendable[] = {"HOST", "STATUS"};
  for (const std::size_t width : {300U, 280U, 80U, 40U, 20U}) {
    Table table = Wide();
    table.FitTo(width, kExpendable);
    for (std::size_t row = 0; row < table.size(); ++row)
      EXPECT_LE(DisplayWidth(table.RowLine(row)), width) << width;
    EXPECT_EQ(table.HeadingLine().find("HOST") == std::string::npos, width < 285) << width;
    EXPECT_EQ(table.HeadingLine().find("STATUS") == std::string::npos, width < 273) << width;
    EXPECT_TRUE(table.RowLine(0).starts_with("1234567  Press ")) << table.RowLine(0);
  }
}

TEST(Arrangement, FindsRowsByPartsAndByWildcards) {
  const std::vector<std::string> cells = {"0000123", "Pr\u00FCfstand E-4", "10.0.0.7"};
  for (const std::string_view pattern :
       {"123", "pr\u00FCf", "E-", "*stand*", "10.0.?.7", "*", "", "Pr?fstand*4", "00*23"})
    EXPECT_TRUE(IsMatch(pattern, cells)) << pattern;
  for (const std::string_view pattern : {"124", "10.0.?", "?", "Pr??fstand*", "E-*", "*5"})
    EXPECT_FALSE(IsMatch(pattern, cells)) << pattern;
}

TEST(Arrangement, NumbersComeInTheirOrder) {
  const std::vector<std::string> sorted = {"",
                                           "-",
                                           "007",
                                           "10",
                                           "10.0.0.9",
                                           "10.0.0.10",
                                           "10.0.1.1",
                                           "99999999999999999998",
                                           "99999999999999999999",
                                           "Oven 2",
                                           "oven 10"};
  std::vector<std::string> mixed(sorted.rbegin(), sorted.rend());
  std::ranges::stable_sort(mixed, ComesBefore);
  EXPECT_EQ(mixed, sorted);
  EXPECT_FALSE(ComesBefore("01", "1") || ComesBefore("1", "01"));
}

class Live : public ::testing::Test {
 protected:
  Live() {
    options_.watchMs = 1'000;
    View view{.title = "40 devices", .headings = {"SERIAL", "ALIAS"}, .rows = {}};
    for (int i = 10; i < 50; ++i) {
      const std::string serial = std::to_string(i);
      view.rows.push_back({serial, {serial, i % 2 == 0 ? "even" : "odd"}});
    }
    table_.Show(view);
  }

  std::string Press(std::initializer_list<platform::KeyPress> keys) {
    for (const auto& key : keys) EXPECT_TRUE(table_.Press(key));
    return table_.Page({40, 14});
  }

  static bool Shows(const std::string& page, std::string_view text) {
    return page.find(text) != std::string::npos;
  }

  ToolOptions options_;
  LiveTable table_{options_, true};
};

TEST_F(Live, Pages) {
  EXPECT_TRUE(Shows(Press({}), "1-10 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kDown}}), "2-11 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kPageDown}}), "12-21 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kEnd}}), "31-40 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kPageDown}, {Key::kDown}}), "31-40 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kUp}}), "30-39 of 40"));
  EXPECT_TRUE(Shows(Press({{Key::kHome}, {Key::kUp}}), "1-10 of 40"));
}

TEST_F(Live, FiltersUntilTheFilterIsCleared) {
  (void)Press({{Key::kEnd}});
  std::string page = Press({{Key::kCharacter, "/"}, {Key::kCharacter, "q"}});
  EXPECT_TRUE(Shows(page, "/q_")) << "q is a letter there";
  page = Press({{Key::kBackspace},
                {Key::kCharacter, "4"},
                {Key::kCharacter, "\u00FC"},
                {Key::kBackspace},
                {Key::kEnter}});
  EXPECT_TRUE(Shows(page, "with '4'")) << page;
  EXPECT_TRUE(Shows(page, "1-10 of 13")) << "14, 24, 34 and 40 to 49";
  EXPECT_TRUE(Shows(Press({{Key::kEscape}}), "1-10 of 40"));
  page = Press({{Key::kCharacter, "/"}, {Key::kCharacter, "Z"}, {Key::kEnter}});
  EXPECT_TRUE(Shows(page, "nothing with 'Z'"));
  EXPECT_FALSE(table_.Press({Key::kCharacter, "q"}));
}

TEST_F(Live, FitsAScreenOfAnySize) {
  for (const std::uint32_t rows : {1U, 2U, 5U, 100U}) {
    for (const std::uint32_t columns : {1U, 5U, 200U}) {
      const std::string page = table_.Page({columns, rows});
      EXPECT_LT(std::ranges::count(page, '\n'), static_cast<std::ptrdiff_t>(rows));
    }
  }
}

}  // namespace
}  // namespace talvorn
