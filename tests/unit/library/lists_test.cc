// What programs get of the records that the locator sends.
#include "library/lists.h"

#include <gtest/gtest.h>

#include <array>
#include <string_view>
#include <vector>

#include "library/sized_structure.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

DeviceRecord Device(std::string_view serial, std::string_view alias) {
  DeviceRecord device;
  device.deviceSerial.Assign(serial);
  device.deviceAlias.Assign(alias);
  device.deviceIpv4.Assign("10.0.0.7");
  return device;
}

TEST(Lists, TextsAreUtf8AndStandAsLongAsTheList) {
  const auto list = ListOf(std::vector{Device("0000042", "S\xE4ge"), Device("abc", "")});
  ASSERT_EQ(talvorn_device_list_size(list.get()), 2u);
  talvorn_device device{};
  device.size = sizeof device;
  ASSERT_EQ(talvorn_device_list_get(list.get(), 0, &device), TALVORN_OK);
  EXPECT_EQ(device.size, sizeof device);
  EXPECT_STREQ(device.serial, "0000042");
  EXPECT_STREQ(device.alias, "S\xC3\xA4ge");
  EXPECT_STREQ(device.ipv4, "10.0.0.7");
  EXPECT_STREQ(device.ipv6, "");
  EXPECT_EQ(device.number, 42u);
  ASSERT_EQ(talvorn_device_list_get(list.get(), 1, &device), TALVORN_OK);
  EXPECT_STREQ(device.alias, "");
  EXPECT_EQ(device.number, 0u);
  EXPECT_EQ(talvorn_device_list_get(list.get(), 2, &device), TALVORN_BAD_ARGUMENT);
}

TEST(Lists, AnOlderLibraryLeavesZeroWhatItDoesNotKnow) {
  const auto list = ListOf(std::vector{Device("7", "x")});
  struct {
    talvorn_device known{};
    std::array<unsigned char, 24> more{};
  } later;
  later.more.fill(0xAA);
  later.known.size = sizeof later;
  ASSERT_EQ(talvorn_device_list_get(list.get(), 0, &later.known), TALVORN_OK);
  EXPECT_STREQ(later.known.serial, "7");
  EXPECT_EQ(later.known.size, sizeof later);
  for (const unsigned char byte : later.more) EXPECT_EQ(byte, 0);
  later.known.size = sizeof later.known - 1;
  EXPECT_EQ(talvorn_device_list_get(list.get(), 0, &later.known), TALVORN_BAD_ARGUMENT);
  EXPECT_EQ(talvorn_device_list_get(list.get(), 0, nullptr), TALVORN_BAD_ARGUMENT);
}

TEST(Lists, AnItemHasItsPartsAndItsDigest) {
  DeviceItem received{.serial = 42, .hashLength = 3, .nextOffset = 9, .bytes = {}};
  for (int i = 0; i < 26; ++i) received.bytes.push_back(static_cast<std::byte>(i));
  const auto list = ListOf(std::vector{received});
  talvorn_item item{};
  item.size = sizeof item;
  ASSERT_EQ(talvorn_item_list_get(list.get(), 0, &item), TALVORN_OK);
  EXPECT_EQ(item.device, 42u);
  EXPECT_EQ(item.hash_length, 3u);
  EXPECT_EQ(item.next_offset, 9u);
  ASSERT_EQ(item.bytes_size, 26u);
  EXPECT_EQ(item.bytes[25], 25);
  EXPECT_EQ(item.header, item.bytes + 4);
  EXPECT_EQ(item.content + item.content_size, item.bytes + item.bytes_size);
  // Of the bytes 0, 1 and 2.
  EXPECT_STREQ(item.digest, "0c7a623fd2bbc05b06423be359e4021d36e721ad");
}

}  // namespace
}  // namespace talvorn
