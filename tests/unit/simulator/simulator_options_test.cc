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

TEST(SimulatorOptions, EverythingCanBeSaid) {
  SimulatorOptions options;
  const Strings arguments = {"--interface",
                             "demo0",
                             "--ipv6",
                             "--devices",
                             "12",
                             "--layout",
                             "mixed",
                             "--items",
                             "3",
                             "--item-size",
                             "100",
                             "--change-items",
                             "500",
                             "--toggle-item",
                             "700",
                             "--announce",
                             "1000",
                             "--delay",
                             "10-20",
                             "--loss",
                             "12.5",
                             "--absent",
                             "2000/6000",
                             "--absent-devices",
                             "4",
                             "--seed",
                             "9",
                             "--for",
                             "0.5",
                             "--first-serial",
                             "77",
                             "--send-file",
                             "x.hex",
                             "--send-to",
                             "request",
                             "--verbose",
                             "--send-request",
                             "250",
                             "--change-status",
                             "300"};
  ASSERT_FALSE(ParseSimulatorOptions(arguments, options));
  EXPECT_EQ(options.interfaceName, "demo0");
  EXPECT_FALSE(options.ipv4);
  EXPECT_TRUE(options.ipv6);
  EXPECT_EQ(options.model.devices, 12u);
  EXPECT_EQ(options.model.layout, RecordLayout::kMixed);
  EXPECT_EQ(options.model.items, 3u);
  EXPECT_EQ(options.model.itemSize, 100u);
  EXPECT_EQ(options.model.changeItemsMs, 500u);
  EXPECT_EQ(options.model.toggleItemMs, 700u);
  EXPECT_EQ(options.model.changeStatusMs, 300u);
  EXPECT_EQ(options.model.absentForMs, 2'000u);
  EXPECT_EQ(options.model.absentEveryMs, 6'000u);
  EXPECT_EQ(options.model.absentDevices, 4u);
  EXPECT_EQ(options.model.seed, 9u);
  EXPECT_EQ(options.model.firstSerial, 77u);
  EXPECT_EQ(options.announceMs, 1'000u);
  EXPECT_EQ(options.delayMinMs, 10u);
  EXPECT_EQ(options.delayMaxMs, 20u);
  EXPECT_EQ(options.lossPerMille, 125u);
  EXPECT_EQ(options.sendRequestMs, 250u);
  EXPECT_EQ(options.sendFile, "x.hex");
  EXPECT_TRUE(options.fileToRequestGroup);
  EXPECT_EQ(options.endAfterMs, 500u);
  EXPECT_TRUE(options.verbose);

  SimulatorOptions both;
  ASSERT_FALSE(
      ParseSimulatorOptions(Strings{"--interface", "x", "--ipv4", "--ipv6", "--delay", "7"}, both));
  EXPECT_TRUE(both.ipv4 && both.ipv6);
  EXPECT_EQ(both.delayMinMs, 7u);
  EXPECT_EQ(both.delayMaxMs, 7u);
}

TEST(SimulatorOptions, TheStatusQueryAndItsFaults) {
  SimulatorOptions options;
  const Strings arguments = {
      "--interface", "x", "--status-query", "--no-multicast", "--status-fault", "endless-chain"};
  ASSERT_FALSE(ParseSimulatorOptions(arguments, options));
  EXPECT_TRUE(options.statusQuery);
  EXPECT_FALSE(options.multicast);
  EXPECT_EQ(options.statusFault, StatusFault::kEndlessChain);
  // Every kind that the help names is one, and the other way round.
  const std::string help = SimulatorHelp();
  for (const char* kind : {"silent", "pieces", "two-frames", "long-chain", "endless-chain",
                           "early-close", "other-type", "drip"}) {
    EXPECT_EQ(Mistake({"--interface", "x", "--status-query", "--status-fault", kind}), "");
    EXPECT_THAT(help, HasSubstr(std::string(" ") + kind + "  "));
  }
  EXPECT_THAT(Mistake({"--interface", "x", "--status-query", "--status-fault", "loud"}),
              HasSubstr("one of silent, pieces"));
  EXPECT_THAT(Mistake({"--interface", "x", "--status-fault", "drip"}), HasSubstr("needs"));
  EXPECT_THAT(Mistake({"--interface", "x", "--no-multicast"}), HasSubstr("nothing to do"));
  EXPECT_THAT(Mistake({"--interface", "x", "--status-query", "--ipv6"}), HasSubstr("IPv4 only"));
  EXPECT_THAT(Mistake({"--interface", "x", "--status-query", "--no-multicast", "--announce", "9"}),
              HasSubstr("need multicast"));
}

TEST(SimulatorOptions, MistakesAreSaid) {
  EXPECT_EQ(Mistake({}), "--interface is missing");
  EXPECT_EQ(Mistake({"--help"}), "");
  EXPECT_EQ(Mistake({"--interface", "x", "demo1"}), "'demo1' belongs to no option");
  for (const char* delay : {"x", "5-3", "5-", "-5", "1-2-3", ""})
    EXPECT_THAT(Mistake({"--interface", "x", std::string("--delay=") + delay}),
                HasSubstr("--delay takes milliseconds"));
  for (const char* absence : {"5", "5/3", "0/5", "/5", "5/", "1/2/3"})
    EXPECT_THAT(Mistake({"--interface", "x", std::string("--absent=") + absence}),
                HasSubstr("--absent takes two times"));
  EXPECT_THAT(Mistake({"--interface", "x", "--loss", "100.1"}), HasSubstr("a percentage"));
  EXPECT_THAT(Mistake({"--interface", "x", "--layout", "old"}), HasSubstr("full, short or mixed"));
  EXPECT_THAT(Mistake({"--interface", "x", "--first-serial", "9999999", "--devices", "2"}),
              HasSubstr("past 9999999"));
  EXPECT_EQ(Mistake({"--interface", "x", "--first-serial", "9999999"}), "");
  EXPECT_THAT(Mistake({"--interface", "x", "--items", "2000", "--item-size", "65000"}),
              HasSubstr("130040367 bytes"));
  EXPECT_EQ(Mistake({"--interface", "x", "--items", "1", "--item-size", "64613"}), "");
  EXPECT_NE(Mistake({"--interface", "x", "--items", "1", "--item-size", "64614"}), "");
  EXPECT_NE(Mistake({"--interface", "x", "--items", "1", "--item-size", "3"}), "");
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
