#include "client/tool/changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace talvorn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
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
  std::vector<DeviceRecord> second = {Device("1", "RUN"), Device("1000", "\x1b[m")};
  second[1].deviceIpv6.Assign("fe80::1");
  EXPECT_THAT(
      Lines(tracker.UpdateDevices(second)),
      ElementsAre("12:00:00  device appeared  1        Oven  RUN  10.0.0.1",
                  "12:00:00  device changed   1000     status RUN -> \\x1b[m, IPv6 address - -> "
                  "fe80::1",
                  "12:00:00  device gone      999      Oven  IDLE  10.0.0.1"));
}

}  // namespace
}  // namespace talvorn
