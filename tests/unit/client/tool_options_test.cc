#include "client/tool/tool_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace talvorn {
namespace {

using Strings = std::vector<std::string>;

TEST(ToolOptions, MistakesSayWhereHelpIs) {
  ToolOptions options;
  EXPECT_EQ(ParseToolOptions(Strings{"\x1b[2J"}, options).value().sentence,
            "there is no command '\\x1b[2J'");
  EXPECT_EQ(ParseToolOptions(Strings{"reinit"}, options).value().helpWith, "talvorn reinit --help");
  for (const char* value : {"0.09", "0", ".5", "1.", "1.2345", "1.2.3", "1e3", "-1", "86400.001"}) {
    const Strings arguments = {"devices", std::string("--watch=") + value};
    EXPECT_EQ(
        ParseToolOptions(arguments, options).value().sentence,
        std::string("--watch takes a number of seconds from 0.1 to 86400, not '") + value + "'");
  }
}

}  // namespace
}  // namespace talvorn
