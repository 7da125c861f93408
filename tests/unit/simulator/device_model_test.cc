#include "simulator/device_model.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

const ModelAddresses kAddresses = {.ipv4 = {"10.0.0.1", "10.0.0.2"}, .ipv6 = {"fd00::1"}};

TEST(DeviceModel, TheSameSeedGivesTheSameBytes) {
  ModelOptions options{.devices = 20, .items = 3, .changeItemsMs = 500, .seed = 7};
  const auto answer = [&] { return DeviceModel(options, kAddresses).Answer(19, 10'000); };
  const auto first = answer();
  EXPECT_EQ(answer(), first);
  options.seed = 8;
  EXPECT_NE(answer(), first);
}

TEST(DeviceModel, ItemsChangeAndComeAndGoWithTheirPeriod) {
  const DeviceModel changing({.devices = 1, .items = 3, .changeItemsMs = 1'000}, kAddresses);
  EXPECT_EQ(changing.Answer(0, 999), changing.Answer(0, 0));
  EXPECT_NE(changing.Answer(0, 1'000), changing.Answer(0, 999));

  const DeviceModel toggling({.devices = 1, .items = 1, .toggleItemMs = 1'000}, kAddresses);
  EXPECT_NE(toggling.Record(0, 999).itemOffset, 0u);
  EXPECT_EQ(toggling.Record(0, 1'000).itemOffset, 0u);
  EXPECT_NE(toggling.Record(0, 2'000).itemOffset, 0u);
}

}  // namespace
}  // namespace talvorn
