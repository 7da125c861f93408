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

std::string Mistake(Strings arguments) {
  SimulatorOptions options;
  return ParseSimulatorOptions(arguments, options).value_or("");
}

TEST(SimulatorOptions, ValuesReachWhatTheyAreFor) {
  SimulatorOptions options;
  const Strings arguments = {"--interface=x", "--delay=10-20", "--loss=12.5", "--absent=2000/6000",
                             "--for=0.5"};
  ASSERT_FALSE(ParseSimulatorOptions(arguments, options));
  EXPECT_TRUE(options.ipv4 && options.ipv6);
  EXPECT_EQ(options.delayMinMs, 10u);
  EXPECT_EQ(options.delayMaxMs, 20u);
  EXPECT_EQ(options.lossPerMille, 125u);
  EXPECT_EQ(options.model.absentForMs, 2'000u);
  EXPECT_EQ(options.model.absentEveryMs, 6'000u);
  EXPECT_EQ(options.endAfterMs, 500u);
}

TEST(SimulatorOptions, MistakesAreSaid) {
  const std::pair<Strings, std::string> cases[] = {
      {{"demo1"}, "'demo1' belongs to no option"},
      {{"--loss", "100.1"}, "a percentage"},
      {{"--layout", "old"}, "full, short or mixed"},
      {{"--first-serial", "9999999", "--devices", "2"}, "past 9999999"},
      {{"--items", "2000", "--item-size", "65000"}, "130040367 bytes"},
      {{"--items", "1", "--item-size", "64614"}, "bytes"},
      {{"--status-query", "--status-fault", "loud"}, "one of silent, pieces"},
      {{"--status-fault", "drip"}, "needs"},
      {{"--no-multicast"}, "nothing to do"},
      {{"--status-query", "--ipv6"}, "IPv4 only"},
  };
  for (auto [arguments, mistake] : cases) {
    arguments.insert(arguments.begin(), "--interface=x");
    EXPECT_THAT(Mistake(arguments), HasSubstr(mistake));
  }
  EXPECT_EQ(Mistake({}), "--interface is missing");
  EXPECT_EQ(Mistake({"--interface", "x", "--items", "1", "--item-size", "64613"}), "");
  for (const char* delay : {"x", "5-3", "5-", "-5", "1-2-3", ""})
    EXPECT_THAT(Mistake({std::string("--delay=") + delay}),
                HasSubstr("--delay takes milliseconds"));
  for (const char* absence : {"5", "5/3", "0/5", "/5", "5/", "1/2/3"})
    EXPECT_THAT(Mistake({std::string("--absent=") + absence}), HasSubstr("--absent takes two"));
}

TEST(HexLines, OneDatagramPerLine) {
  const HexLines lines = ParseHexLines("# header\n00 01fF\r\n\n-  # empty\nAB # ab\n\t7f");
  EXPECT_EQ(lines.mistake, "");
  ASSERT_EQ(lines.datagrams.size(), 4u);
  EXPECT_EQ(AsText(lines.datagrams[0]), std::string("\0\x01\xFF", 3));
  EXPECT_TRUE(lines.datagrams[1].empty());
  EXPECT_EQ(AsText(lines.datagrams[2]), "\xAB");
  EXPECT_EQ(AsText(lines.datagrams[3]), "\x7F");
  EXPECT_TRUE(ParseHexLines("").datagrams.empty());
  for (const char* wrong : {"00\n0", "00\n0g", "00\n--", "00\n0x00"})
    EXPECT_EQ(ParseHexLines(wrong).mistake, "line 2 is not made of hexadecimal bytes") << wrong;
}

}  // namespace
}  // namespace talvorn
