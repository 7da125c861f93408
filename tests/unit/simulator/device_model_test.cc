#include "simulator/device_model.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "devices/item_record.h"
#include "discovery/datagram.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

const ModelAddresses kAddresses = {.ipv4 = {"10.0.0.1", "10.0.0.2", "10.0.0.3"},
                                   .ipv6 = {"fd00::1"}};

struct SeenItem {
  std::uint32_t number = 0;
  std::string content;  // with its word of length, without padding
};

std::vector<SeenItem> ItemsOf(std::span<const std::byte> answer) {
  std::vector<SeenItem> items;
  const std::uint32_t offset = DecodeDeviceRecord(answer).itemOffset;
  if (offset == 0) return items;
  ForEachItem(answer.subspan(offset), [&](const ItemView& item) {
    const std::string_view text = AsText(item.bytes().subspan(kItemWordsSize));
    items.push_back({U32BigAt(item.bytes(), 4), std::string(text.substr(0, text.find('\0')))});
  });
  return items;
}

TEST(DeviceModel, TheSameSeedGivesTheSameBytes) {
  const ModelOptions options{.devices = 20, .items = 3, .changeItemsMs = 500, .seed = 7};
  ModelOptions other = options;
  other.seed = 8;
  std::size_t different = 0;
  for (std::uint32_t device = 0; device < options.devices; ++device) {
    for (const std::uint64_t now : {0u, 499u, 10'000u}) {
      const auto answer = DeviceModel(options, kAddresses).Answer(device, now);
      EXPECT_EQ(answer, DeviceModel(options, kAddresses).Answer(device, now));
      if (answer != DeviceModel(other, kAddresses).Answer(device, now)) ++different;
    }
  }
  EXPECT_GT(different, 50u);
}

TEST(DeviceModel, FullRecordsAreAcceptedAndDecoded) {
  const DeviceModel model({.devices = 5, .firstSerial = 4'711, .items = 2, .itemSize = 40},
                          kAddresses);
  const auto answer = model.Answer(4, 0);
  ASSERT_EQ(answer.size(), 367u + 2 * 60);
  EXPECT_TRUE(AcceptDatagram(answer, kMagic));
  EXPECT_EQ(DatagramType(answer), kTypeRecord);
  const DeviceRecord record = DecodeDeviceRecord(answer);
  EXPECT_EQ(record.length, 367u);
  EXPECT_EQ(record.itemOffset, 367u);
  EXPECT_EQ(record.deviceSerial.view(), "0004715");
  EXPECT_EQ(record.numericSerial(), 4'715u);
  EXPECT_EQ(record.deviceIpv4.view(), "10.0.0.2");  // the fifth of three
  EXPECT_EQ(record.deviceIpv6.view(), "fd00::1");
  EXPECT_FALSE(record.deviceAlias.empty());
  EXPECT_FALSE(record.deviceStatus.empty());
  EXPECT_FALSE(record.deviceClip.empty());
  EXPECT_EQ(record.hostAlias.view(), "station-02");
  const auto items = ItemsOf(answer);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].number, 1u);
  EXPECT_EQ(items[1].number, 2u);
  EXPECT_NE(items[0].content, "");

  const DeviceModel plain({.devices = 1}, {});
  EXPECT_EQ(plain.Answer(0, 0).size(), 367u);
  EXPECT_EQ(DecodeDeviceRecord(plain.Answer(0, 0)).itemOffset, 0u);
}

TEST(DeviceModel, ShortAndMixedRecords) {
  const DeviceModel mixed({.devices = 4, .layout = RecordLayout::kMixed, .items = 1}, kAddresses);
  for (std::uint32_t device = 0; device < 4; ++device) {
    const auto answer = mixed.Answer(device, 0);
    EXPECT_TRUE(AcceptDatagram(answer, kMagic));
    if (device % 2 == 0) {
      EXPECT_EQ(DatagramType(answer), kTypeRecord);
      continue;
    }
    ASSERT_EQ(answer.size(), kShortDeviceRecordSize);
    EXPECT_EQ(DatagramType(answer), kTypeShortRecord);
    const DeviceRecord full = ConvertShortRecord(DecodeShortDeviceRecord(answer));
    EXPECT_EQ(full.deviceSerial, mixed.Record(device, 0).deviceSerial);
    EXPECT_EQ(full.deviceAlias, mixed.Record(device, 0).deviceAlias);
    EXPECT_EQ(full.hostAlias, mixed.Record(device, 0).hostAlias);
    EXPECT_EQ(mixed.Record(device, 0).itemOffset, 0u);
  }
  const DeviceModel allShort({.devices = 1, .layout = RecordLayout::kShort}, {});
  EXPECT_EQ(allShort.Answer(0, 0).size(), kShortDeviceRecordSize);
}

TEST(DeviceModel, ItemsChangeInTurn) {
  const DeviceModel model({.devices = 1, .items = 3, .changeItemsMs = 1'000}, kAddresses);
  auto before = ItemsOf(model.Answer(0, 0));
  for (std::uint64_t period = 1; period <= 7; ++period) {
    EXPECT_EQ(ItemsOf(model.Answer(0, period * 1'000 - 1)).at(0).content, before[0].content);
    const auto after = ItemsOf(model.Answer(0, period * 1'000));
    for (std::size_t item = 0; item < 3; ++item) {
      const bool changes = item == (period - 1) % 3;
      EXPECT_EQ(after.at(item).content != before.at(item).content, changes) << period << item;
    }
    before = after;
  }
}

TEST(DeviceModel, TheFirstItemComesAndGoes) {
  const DeviceModel model({.devices = 1, .items = 2, .toggleItemMs = 1'000}, kAddresses);
  const auto all = ItemsOf(model.Answer(0, 999));
  const auto rest = ItemsOf(model.Answer(0, 1'000));
  ASSERT_EQ(all.size(), 2u);
  ASSERT_EQ(rest.size(), 1u);
  EXPECT_EQ(rest[0].content, all[1].content);
  EXPECT_EQ(ItemsOf(model.Answer(0, 2'000)).size(), 2u);
  const DeviceModel one({.devices = 1, .items = 1, .toggleItemMs = 1'000}, kAddresses);
  EXPECT_EQ(one.Answer(0, 1'000).size(), 367u);
  EXPECT_EQ(one.Record(0, 1'000).itemOffset, 0u);
}

TEST(DeviceModel, StatusChangesEveryPeriod) {
  const DeviceModel model({.devices = 2, .changeStatusMs = 1'000}, kAddresses);
  const auto status = [&](std::uint32_t device, std::uint64_t now) {
    return std::string(model.Record(device, now).deviceStatus.view());
  };
  EXPECT_EQ(status(0, 0), status(0, 999));
  EXPECT_NE(status(0, 999), status(0, 1'000));
  EXPECT_NE(status(1, 499), status(1, 500));  // half a period ahead of the first
  EXPECT_EQ(status(1, 500), status(1, 1'499));
}

TEST(DeviceModel, DevicesAreAwayOneAfterTheOther) {
  const DeviceModel model(
      {.devices = 5, .absentForMs = 1'000, .absentEveryMs = 4'000, .absentDevices = 2}, {});
  const auto away = [&](std::uint64_t now) {
    std::set<std::uint32_t> devices;
    for (std::uint32_t device = 0; device < 5; ++device)
      if (!model.Present(device, now)) devices.insert(device);
    return devices;
  };
  using Set = std::set<std::uint32_t>;
  EXPECT_EQ(away(0), Set{});
  EXPECT_EQ(away(999), Set{});
  EXPECT_EQ(away(1'000), Set{4});  // half a period ahead of the other
  EXPECT_EQ(away(1'999), Set{4});
  EXPECT_EQ(away(2'000), Set{});
  EXPECT_EQ(away(3'000), Set{3});
  EXPECT_EQ(away(4'000), Set{});
  EXPECT_EQ(away(5'000), Set{4});

  const DeviceModel always({.devices = 3}, {});
  EXPECT_TRUE(always.Present(2, 123'456'789));
  const DeviceModel never({.devices = 1, .absentForMs = 10, .absentEveryMs = 10}, {});
  EXPECT_FALSE(never.Present(0, 5));
}

}  // namespace
}  // namespace talvorn
