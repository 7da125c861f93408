#include "discovery/datagram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "devices/device_record.h"
#include "platform/socket.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

std::uint32_t Address(const char* text) { return platform::ParseIpv4(text); }

TEST(DiscoveryRequest, PrefixLengthsStopAtTheFirstZeroBit) {
  const std::pair<const char*, int> cases[] = {
      {"255.255.255.0", 24}, {"0.0.0.0", 0}, {"255.0.255.0", 8}, {"255.255.128.1", 17}};
  for (const auto& [mask, length] : cases) EXPECT_EQ(PrefixLength(Address(mask)), length) << mask;
  const std::uint32_t all = 0xFFFFFFFF;
  EXPECT_EQ(InterfaceCidr(all, all).view(), "255.255.255.255/32");
}

TEST(Acceptance, LooksAtLengthAndMagicOnly) {
  const auto accepted = [](std::uint32_t length, std::string_view magic, std::size_t size) {
    std::vector<std::byte> datagram(20);
    ByteWriter writer(datagram);
    writer.U32Big(length);
    writer.Bytes(AsBytes(magic));
    return AcceptDatagram(std::span(datagram).first(size), kMagic);
  };
  EXPECT_TRUE(accepted(16, "TALVORN", 20));
  EXPECT_TRUE(accepted(0xFFFFFFFF, "TALVORN", 11)) << "shorter than its layout";
  EXPECT_TRUE(accepted(16, "TALVORNX", 20)) << "seven bytes count";
  EXPECT_FALSE(accepted(15, "TALVORN", 20));
  EXPECT_FALSE(accepted(16, "TALVORM", 20));
  for (std::size_t size = 0; size < 11; ++size) EXPECT_FALSE(accepted(16, "TALVORN", size)) << size;
}

TEST(Acceptance, TheTypeIsItsFirstThreeCharacters) {
  std::array<std::byte, 16> datagram{};
  std::ranges::copy(AsBytes("1010"), datagram.begin() + 12);
  EXPECT_EQ(DatagramType(datagram), "101");
  EXPECT_NE(DatagramType(std::span(datagram).first(14)), "101");
}

}  // namespace
}  // namespace talvorn
