#include "devices/device_record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/byte_io.h"

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;

// Every byte of the wire layout, by hand.
Bytes GoldenRecord() {
  Bytes bytes(kDeviceRecordSize);
  const auto put = [&](std::size_t offset, std::string_view text) {
    std::ranges::copy(AsBytes(text), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  };
  put(0, std::string_view("\0\0\x01\x6FTALVORN\000101\0\0\0\x01\x6F", 20));
  put(20, "192.168.1.20");
  put(39, "fe80::1");
  put(89, "OK81");
  put(94, "1234567");
  put(102, "C7");
  put(105, "an alias");
  put(130, "10.0.0.1");
  put(149, "fd00::2");
  put(199, "a host");
  put(263, "reserved");
  return bytes;
}

TEST(DeviceRecord, FieldsStandWhereTheWireHasThem) {
  const auto golden = GoldenRecord();
  const DeviceRecord record = DecodeDeviceRecord(golden);
  EXPECT_EQ(record.length, 367u);
  EXPECT_EQ(record.magic.view(), "TALVORN");
  EXPECT_EQ(record.type.view(), "101");
  EXPECT_EQ(record.itemOffset, 367u);
  EXPECT_EQ(record.deviceIpv4.view(), "192.168.1.20");
  EXPECT_EQ(record.deviceIpv6.view(), "fe80::1");
  EXPECT_EQ(record.deviceStatus.view(), "OK81");
  EXPECT_EQ(record.deviceSerial.view(), "1234567");
  EXPECT_EQ(record.deviceClip.view(), "C7");
  EXPECT_EQ(record.deviceAlias.view(), "an alias");
  EXPECT_EQ(record.hostIpv4.view(), "10.0.0.1");
  EXPECT_EQ(record.hostIpv6.view(), "fd00::2");
  EXPECT_EQ(record.hostAlias.view(), "a host");
  EXPECT_EQ(record.reserved[0], std::byte{'r'});

  Bytes encoded(kDeviceRecordSize, std::byte{0xEE});
  EncodeDeviceRecord(record, std::span(encoded).first<kDeviceRecordSize>());
  EXPECT_EQ(encoded, golden);
}

TEST(DeviceRecord, CarriesWhatStandsBehindTerminators) {
  std::mt19937 random(1);
  Bytes bytes(kDeviceRecordSize);
  for (std::byte& b : bytes) b = static_cast<std::byte>(random() & 0xFF);
  // The last byte of each text field becomes its terminator.
  auto expected = bytes;
  for (const std::size_t end : {12u, 16u, 39u, 89u, 94u, 102u, 105u, 130u, 149u, 199u, 263u})
    expected[end - 1] = std::byte{0};

  Bytes encoded(kDeviceRecordSize);
  EncodeDeviceRecord(DecodeDeviceRecord(bytes), std::span(encoded).first<kDeviceRecordSize>());
  EXPECT_EQ(encoded, expected);
}

TEST(DeviceRecord, EveryTruncationCountsAsZeroFilled) {
  const auto golden = GoldenRecord();
  for (std::size_t size = 0; size < golden.size(); ++size) {
    auto filled = golden;
    std::fill(filled.begin() + static_cast<std::ptrdiff_t>(size), filled.end(), std::byte{0});
    EXPECT_EQ(DecodeDeviceRecord(std::span(golden).first(size)), DecodeDeviceRecord(filled))
        << size;
  }
}

TEST(DeviceRecord, TheNumericSerialIsWhatAtoiReads) {
  const std::pair<const char*, std::uint32_t> cases[] = {
      {"0012", 12}, {"", 0}, {"abc", 0}, {"12ab", 12}, {" 7", 7}, {"+8", 8}, {"-1", 0xFFFFFFFF}};
  for (const auto& [text, number] : cases) {
    DeviceRecord record;
    record.deviceSerial.Assign(text);
    EXPECT_EQ(record.numericSerial(), number) << text;
  }
}

}  // namespace
}  // namespace talvorn
