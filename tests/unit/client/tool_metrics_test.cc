#include "client/tool/metrics.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

TEST(Metrics, LabelsKeepHostileTextsInTheirQuotationMarks) {
  EXPECT_EQ(LabelValue("a\\\"b"), "a\\\\\\\"b");
  EXPECT_EQ(LabelValue("1\n2\x1b[2J").find_first_of("\n\x1b"), std::string::npos);
  // Cut before it is escaped: no backslash is left to escape the quotation mark.
  EXPECT_EQ(LabelValue(std::string(500, '"')).find("\\\"\\\""), 0U);
  for (std::size_t size = 60; size < 70; ++size) {
    const std::string value = LabelValue(std::string(size, '\\'));
    EXPECT_LE(value.size(), 140U);
    EXPECT_EQ(value.substr(0, value.find_first_not_of('\\')).size() % 2, 0U);
  }
}

}  // namespace
}  // namespace talvorn
