#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "simulator/hex_lines.h"
#include "simulator/options.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

TEST(SimulatorOptions, ValuesReachWhatTheyAreFor) {
  SimulatorOptions options;
  const Strings arguments = {"--interface=x", "--delay=10-20", "--loss=12.5", "--absent=2000/6000"};
  ASSERT_FALSE(ParseSimulatorOptions(arguments, options));
  EXPECT_EQ(options.delayMinMs, 10u);
  EXPECT_EQ(options.delayMaxMs, 20u);
  EXPECT_EQ(options.lossPerMille, 125u);
  EXPECT_EQ(options.model.absentForMs, 2'000u);
  EXPECT_EQ(options.model.absentEveryMs, 6'000u);
}

TEST(SimulatorOptions, MistakesAreSaid) {
  const std::pair<Strings, std::string> cases[] = {
      {{"demo1"}, "'demo1' belongs to no option"},
      {{"--loss", "100.1"}, "a percentage"},
      {{"--first-serial", "9999999", "--devices", "2"}, "past 9999999"},
      {{"--items", "1", "--item-size", "64614"}, "bytes"},
      {{"--status-fault", "drip"}, "needs"},
      {{"--no-multicast"}, "nothing to do"},
      {{"--status-query", "--ipv6"}, "IPv4 only"},
      {{"--delay=5-3"}, "--delay takes milliseconds"},
      {{"--absent=5/3"}, "--absent takes two"},
  };
  for (auto [arguments, mistake] : cases) {
    arguments.insert(arguments.begin(), "--interface=x");
    SimulatorOptions options;
    EXPECT_THAT(ParseSimulatorOptions(arguments, options).value_or(""), HasSubstr(mistake));
  }
}

TEST(HexLines, OneDatagramPerLine) {
  const HexLines lines = ParseHexLines("# header\n00 01fF\r\n\n-  # empty\n\t7f");
  EXPECT_EQ(lines.mistake, "");
  ASSERT_EQ(lines.datagrams.size(), 3u);
  EXPECT_EQ(AsText(lines.datagrams[0]), std::string("\0\x01\xFF", 3));
  EXPECT_TRUE(lines.datagrams[1].empty());
  EXPECT_EQ(AsText(lines.datagrams[2]), "\x7F");
  for (const char* wrong : {"00\n0", "00\n0g", "00\n--"})
    EXPECT_EQ(ParseHexLines(wrong).mistake, "line 2 is not made of hexadecimal bytes") << wrong;
}

}  // namespace
}  // namespace talvorn
