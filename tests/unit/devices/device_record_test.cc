#include "devices/device_record.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;

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

}  // namespace
}  // namespace talvorn
