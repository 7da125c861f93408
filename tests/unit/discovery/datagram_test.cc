#include "discovery/datagram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "platform/address.h"
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

TEST(Acceptance, TheTypeIsItsFirstThreeCharacters) {
  std::array<std::byte, 16> datagram{};
  std::ranges::copy(AsBytes("1010"), datagram.begin() + 12);
  EXPECT_EQ(DatagramType(datagram), "101");
  EXPECT_NE(DatagramType(std::span(datagram).first(14)), "101");
}

}  // namespace
}  // namespace talvorn
