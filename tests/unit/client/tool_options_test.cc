#include "tool/tool_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace talvorn {
namespace {

using ::testing::HasSubstr;
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
  EXPECT_TRUE(devices.json);
  EXPECT_EQ(devices.timeoutMs, 500u);
  EXPECT_FALSE(devices.watchMs);
  EXPECT_EQ(Parsed({"items", "--watch"}).watchMs, 1'000u);
  EXPECT_EQ(Parsed({"items", "--watch", "2.5"}).watchMs, 2'500u);
  EXPECT_EQ(Parsed({"items", "--watch", "--json"}).watchMs, 1'000u);
  EXPECT_EQ(Parsed({"version"}).command, ToolCommand::kVersion);
  EXPECT_EQ(Parsed({"--version"}).command, ToolCommand::kToolVersion);
  EXPECT_EQ(Parsed({"log", "start"}).command, ToolCommand::kLogStart);
  EXPECT_EQ(Parsed({"log", "stop"}).command, ToolCommand::kLogStop);
  EXPECT_EQ(Parsed({"log", "path"}).directory, "");
  EXPECT_EQ(Parsed({"log", "path", "D:\\Logs"}).directory, "D:\\Logs");
  EXPECT_EQ(Parsed({"log", "path", "--", "--odd"}).directory, "--odd");
  EXPECT_TRUE(Parsed({"log", "path", "--reset"}).resetDirectory);
  EXPECT_EQ(Parsed({"reinit", "10.0.0.1", "--timeout", "0"}).timeoutMs, 0u);
  EXPECT_EQ(Parsed({"reinit", "10.0.0.1"}).address, "10.0.0.1");
  EXPECT_EQ(Parsed({"hold", "--for", "3"}).holdMs, 3'000u);
  EXPECT_FALSE(Parsed({"hold"}).holdMs);
  EXPECT_TRUE(Parsed({"watch", "--all", "--interval=5"}).all);
}

TEST(ToolOptions, EveryCommandHasHelp) {
  const std::string general = Parsed({"--help"}).help;
  EXPECT_EQ(Parsed({"help"}).help, general);
  for (const Strings& command : std::vector<Strings>{{"devices"},
                                                     {"items"},
                                                     {"watch"},
                                                     {"version"},
                                                     {"log", "path"},
                                                     {"log", "start"},
                                                     {"log", "stop"},
                                                     {"hold"},
                                                     {"reinit"}}) {
    std::string name = command[0];
    if (command.size() > 1) name += " " + command[1];
    EXPECT_THAT(general, HasSubstr("\n  " + name + " "));
    Strings asked = command;
    asked.push_back("--help");
    const std::string help = Parsed(asked).help;
    EXPECT_THAT(help, HasSubstr("Usage: talvorn " + name));
    asked.insert(asked.begin(), "help");
    asked.pop_back();
    EXPECT_EQ(Parsed(asked).help, help);
  }
}

TEST(ToolOptions, MistakesSayWhereHelpIs) {
  struct Case {
    Strings arguments;
    std::string sentence;
    std::string helpWith;
  };
  for (const Case& c : std::vector<Case>{
           {{}, "a command is missing", "talvorn --help"},
           {{"frob"}, "there is no command 'frob'", "talvorn --help"},
           {{"\x1b[2J"}, "there is no command '\\x1b[2J'", "talvorn --help"},
           {{"--json", "devices"},
            "there is no option '--json' without a command",
            "talvorn --help"},
           {{"log"}, "'log' is followed by start, stop or path", "talvorn --help"},
           {{"help", "frob"}, "there is no command 'frob'", "talvorn --help"},
           {{"devices", "x"}, "'devices' takes no argument 'x'", "talvorn devices --help"},
           {{"reinit"}, "'reinit' needs ADDRESS", "talvorn reinit --help"},
           {{"reinit", ""}, "'reinit' does not take an empty ADDRESS", "talvorn reinit --help"},
           {{"reinit", "a", "b"},
            "'reinit' takes no further argument 'b'",
            "talvorn reinit --help"},
           {{"log", "path", ""},
            "'log path' does not take an empty [DIR]",
            "talvorn log path --help"},
           {{"log", "path", "x", "--reset"},
            "a directory and --reset exclude each other",
            "talvorn log path --help"},
           {{"hold", "--json"}, "there is no option '--json'", "talvorn hold --help"},
           {{"devices", "--watch=0"},
            "--watch takes a number of seconds from 0.1 to 86400, not '0'",
            "talvorn devices --help"}}) {
    ToolOptions options;
    const auto mistake = ParseToolOptions(c.arguments, options);
    ASSERT_TRUE(mistake) << c.sentence;
    EXPECT_EQ(mistake->sentence, c.sentence);
    EXPECT_EQ(mistake->helpWith, c.helpWith);
  }
}

}  // namespace
}  // namespace talvorn
