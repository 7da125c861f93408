#include "discovery/own_requests.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::HostAddress;
using platform::SocketAddress;

constexpr std::uint16_t kPort = 40'000;

const std::array<std::uint8_t, 16> kLinkLocal = {0xFE, 0x80, 0, 0, 0, 0, 0, 0,
                                                 0,    0,    0, 0, 0, 0, 0, 1};

TEST(OwnRequests, ALinkLocalAddressIsOwnOnItsLinkOrWithThePortOfARequest) {
  OwnRequests own;
  own.SetAddresses(AddressFamily::kIpv6,
                   {HostAddress::Ipv6(kLinkLocal, 3), HostAddress::Ipv6(kLinkLocal, 5)});
  const SocketAddress onOwnLink = SocketAddress::Ipv6(kLinkLocal, 5, kPort);
  const SocketAddress onAnother = SocketAddress::Ipv6(kLinkLocal, 4, kPort);
  EXPECT_TRUE(own.Sent(onOwnLink));
  EXPECT_FALSE(own.Sent(onAnother)) << "another locator's with the same address";

  own.NoteSending(5, kPort);
  own.NoteSending(5, kPort + 1);
  EXPECT_TRUE(own.Sent(onAnother)) << "both links are one";
  for (std::uint16_t i = 2; i < 10; ++i) own.NoteSending(5, kPort + i);
  EXPECT_FALSE(own.Sent(onAnother)) << "that was long ago";

  own.NoteSending(3, kPort);
  EXPECT_TRUE(own.Sent(onAnother));
  own.SetAddresses(AddressFamily::kIpv6, {HostAddress::Ipv6(kLinkLocal, 5)});
  EXPECT_FALSE(own.Sent(onAnother)) << "the interface has gone";
}

}  // namespace
}  // namespace talvorn
