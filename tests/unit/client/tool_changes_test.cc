#include "tool/changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/byte_io.h"

namespace talvorn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using Strings = std::vector<std::string>;

constexpr FileTime kNoon = 12ULL * 3'600 * 10'000'000;

DeviceRecord Device(std::string_view serial, std::string_view status) {
  DeviceRecord device;
  device.deviceSerial.Assign(serial);
  device.deviceStatus.Assign(status);
  device.deviceAlias.Assign("Oven");
  device.deviceIpv4.Assign("10.0.0.1");
  return device;
}

// `header` stands in the bytes that belong to the device; all bytes are the identity.
DeviceItem Item(std::uint32_t serial, char header, std::string_view content) {
  DeviceItem item{.serial = serial, .hashLength = 100, .nextOffset = 0, .bytes = {}};
  item.bytes.resize(24 + content.size());
  std::ranges::copy(AsBytes(content), item.bytes.begin() + 24);
  item.bytes[7] = static_cast<std::byte>(header);
  return item;
}

Strings Lines(const std::vector<Change>& changes) {
  Strings lines;
  for (const Change& change : changes) lines.push_back(ChangeLine(change, kNoon));
  return lines;
}

TEST(ChangeTracker, DevicesAppearChangeAndGo) {
  ChangeTracker tracker;
  const std::vector<DeviceRecord> first = {Device("1000", "RUN"), Device("999", "IDLE")};
  EXPECT_THAT(Lines(tracker.UpdateDevices(first)),
              ElementsAre("12:00:00  device appeared  1000     Oven  RUN  10.0.0.1",
                          "12:00:00  device appeared  999      Oven  IDLE  10.0.0.1"));
  EXPECT_THAT(tracker.UpdateDevices(first), IsEmpty());

  std::vector<DeviceRecord> second = {Device("1", "RUN"), Device("1000", "")};
  second[1].deviceIpv6.Assign("fe80::1");
  EXPECT_THAT(Lines(tracker.UpdateDevices(second)),
              ElementsAre("12:00:00  device appeared  1        Oven  RUN  10.0.0.1",
                          "12:00:00  device changed   1000     status RUN -> -, IPv6 address - -> "
                          "fe80::1",
                          "12:00:00  device gone      999      Oven  IDLE  10.0.0.1"));
}

TEST(ChangeTracker, WhatDoesNotShowIsNoChange) {
  ChangeTracker tracker;
  DeviceRecord device = Device("1", "RUN");
  (void)tracker.UpdateDevices({&device, 1});
  device.itemOffset = 367;
  device.reserved[0] = std::byte{1};
  EXPECT_THAT(tracker.UpdateDevices({&device, 1}), IsEmpty());
}

TEST(ChangeTracker, ItemsAreNewChangeExpireAndGo) {
  ChangeTracker tracker;
  const auto update = [&tracker](const std::vector<DeviceItem>& items) {
    Strings kinds;
    for (const std::string& line : Lines(tracker.UpdateItems(items)))
      kinds.push_back(line.substr(10, 24) + line.substr(line.rfind("  ")));
    return kinds;
  };
  EXPECT_THAT(update({Item(1, 'a', "x"), Item(2, 'a', "x"), Item(1, 'b', "y")}),
              ElementsAre("item new         0000001  x", "item new         0000001  y",
                          "item new         0000002  x"));
  // A new version of one item: the old one stays until it expires.
  EXPECT_THAT(update({Item(1, 'a', "x"), Item(1, 'a', "z"), Item(2, 'a', "x"), Item(1, 'b', "y")}),
              ElementsAre("item changed     0000001  z"));
  EXPECT_THAT(update({Item(1, 'a', "z"), Item(1, 'b', "y")}),
              ElementsAre("item expired     0000001  x", "item gone        0000002  x"));
  // Headers of zeros do not tell items apart.
  EXPECT_THAT(update({Item(1, '\0', "p"), Item(1, '\0', "q")}),
              ElementsAre("item new         0000001  p", "item new         0000001  q",
                          "item gone        0000001  z", "item gone        0000001  y"));
}

TEST(ChangeTracker, LinesAreSafeAndDocumentsComplete) {
  ChangeTracker tracker;
  const DeviceRecord before = Device("1", "\x1b[m");
  auto changes = tracker.UpdateDevices({&before, 1});
  EXPECT_EQ(Lines(changes)[0], "12:00:00  device appeared  1        Oven  \\x1b[m  10.0.0.1");
  const DeviceRecord after = Device("1", "RUN");
  changes = tracker.UpdateDevices({&after, 1});
  const std::string json = ChangeJson(changes.at(0), kNoon);
  EXPECT_THAT(json, MatchesRegex(R"(\{"time":"1601-01-01T12:00:00.000Z","event":"device-changed",)"
                                 R"("device":\{.*"status":"RUN".*\},)"
                                 R"("before":\{.*"status":"\\u001b\[m".*\}\})"));
  const DeviceItem item = Item(1, 'a', "x");
  EXPECT_THAT(ChangeJson(tracker.UpdateItems({&item, 1}).at(0), kNoon),
              StartsWith(R"({"time":"1601-01-01T12:00:00.000Z","event":"item-new","item":{)"));
}

}  // namespace
}  // namespace talvorn
