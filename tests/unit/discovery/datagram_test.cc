#include "discovery/datagram.h"

#include <gtest/gtest.h>

#include "platform/address.h"

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

}  // namespace
}  // namespace talvorn
