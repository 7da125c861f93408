#include "tool/tool_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace talvorn {
namespace {

using Strings = std::vector<std::string>;

ToolOptions Parsed(const Strings& arguments) {
  ToolOptions options;
  const auto mistake = ParseToolOptions(arguments, options);
  EXPECT_FALSE(mistake) << mistake->sentence;
  return options;
}

TEST(ToolOptions, CommandsAndTheirOptions) {
  const ToolOptions devices = Parsed({"devices", "--json", "--timeout", "0.5"});
  EXPECT_EQ(devices.command, ToolCommand::kDevices);
  EXPECT_TRUE(devices.json && !devices.watchMs);
  EXPECT_EQ(devices.timeoutMs, 500u);
  EXPECT_EQ(Parsed({"items", "--watch", "2.5"}).watchMs, 2'500u);
  EXPECT_EQ(Parsed({"items", "--watch", "--json"}).watchMs, 1'000u);
  EXPECT_EQ(Parsed({"log", "stop"}).command, ToolCommand::kLogStop);
  EXPECT_EQ(Parsed({"log", "path", "--", "--odd"}).directory, "--odd");
  EXPECT_TRUE(Parsed({"log", "path", "--reset"}).resetDirectory);
  EXPECT_TRUE(Parsed({"watch", "--all", "--interval=5"}).all);
  const std::string help = Parsed({"log", "path", "--help"}).help;
  EXPECT_TRUE(help.find("Usage: talvorn log path") != std::string::npos);
  EXPECT_EQ(Parsed({"help", "log", "path"}).help, help);
}

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
