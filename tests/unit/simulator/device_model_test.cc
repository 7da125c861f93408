#include "simulator/device_model.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "devices/item_record.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

const ModelAddresses kAddresses = {.ipv4 = {"10.0.0.1", "10.0.0.2", "10.0.0.3"},
                                   .ipv6 = {"fd00::1"}};

// The contents of a record's items, with their words of length.
std::vector<std::string> ContentsOf(std::span<const std::byte> answer) {
  std::vector<std::string> contents;
  const std::uint32_t offset = DecodeDeviceRecord(answer).itemOffset;
  if (offset == 0) return contents;
  ForEachItem(answer.subspan(offset), [&](const ItemView& item) {
    contents.emplace_back(AsText(item.bytes().subspan(kItemWordsSize)));
  });
  return contents;
}

TEST(DeviceModel, TheSameSeedGivesTheSameBytes) {
  ModelOptions options{.devices = 20, .items = 3, .changeItemsMs = 500, .seed = 7};
  const auto answer = [&] { return DeviceModel(options, kAddresses).Answer(19, 10'000); };
  const auto first = answer();
  EXPECT_EQ(answer(), first);
  options.seed = 8;
  EXPECT_NE(answer(), first);
}

TEST(DeviceModel, ItemsChangeInTurnAndTheFirstComesAndGoes) {
  const DeviceModel changing({.devices = 1, .items = 3, .changeItemsMs = 1'000}, kAddresses);
  auto before = ContentsOf(changing.Answer(0, 0));
  for (std::uint64_t period = 1; period <= 4; ++period) {
    EXPECT_EQ(ContentsOf(changing.Answer(0, period * 1'000 - 1)), before);
    const auto after = ContentsOf(changing.Answer(0, period * 1'000));
    for (std::size_t item = 0; item < 3; ++item) {
      const bool changes = item == (period - 1) % 3;
      EXPECT_EQ(after.at(item) != before.at(item), changes) << period << item;
    }
    before = after;
  }

  const DeviceModel toggling({.devices = 1, .items = 1, .toggleItemMs = 1'000}, kAddresses);
  EXPECT_EQ(ContentsOf(toggling.Answer(0, 999)).size(), 1u);
  EXPECT_EQ(toggling.Answer(0, 1'000).size(), 367u);
  EXPECT_EQ(toggling.Record(0, 1'000).itemOffset, 0u);
  EXPECT_EQ(ContentsOf(toggling.Answer(0, 2'000)).size(), 1u);
}

}  // namespace
}  // namespace talvorn
