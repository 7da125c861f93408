#include "discovery/own_requests.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::HostAddress;
using platform::SocketAddress;

constexpr std::uint16_t kPort = 40'000;

std::array<std::uint8_t, 16> Bytes(std::uint8_t first, std::uint8_t second, std::uint8_t last) {
  std::array<std::uint8_t, 16> bytes{first, second};
  bytes.back() = last;
  return bytes;
}
const auto kLinkLocal = Bytes(0xFE, 0x80, 1);
const auto kGlobal = Bytes(0xFD, 0, 1);

SocketAddress Ipv4(const char* address) {
  return SocketAddress::Ipv4(platform::ParseIpv4(address), kPort);
}
HostAddress Ipv4Host(const char* address) { return Ipv4(address).host(); }

TEST(OwnRequests, ComeFromAnAddressOfTheLastLook) {
  OwnRequests own;
  EXPECT_FALSE(own.Sent(Ipv4("10.0.0.1")));
  own.SetAddresses(AddressFamily::kIpv4, {Ipv4Host("10.0.0.9"), Ipv4Host("10.0.0.1")});
  own.SetAddresses(AddressFamily::kIpv6, {HostAddress::Ipv6(kGlobal, 3)});
  EXPECT_TRUE(own.Sent(Ipv4("10.0.0.1")));
  EXPECT_TRUE(own.Sent(Ipv4("10.0.0.9")));
  EXPECT_FALSE(own.Sent(Ipv4("10.0.0.2")));
  EXPECT_TRUE(own.Sent(SocketAddress::Ipv6(kGlobal, 0, kPort)));
  EXPECT_FALSE(own.Sent(SocketAddress::Ipv6(Bytes(0xFD, 0, 2), 0, kPort)));
  EXPECT_FALSE(own.Sent(SocketAddress{}));
  own.SetAddresses(AddressFamily::kIpv4, {Ipv4Host("10.0.0.2")});
  EXPECT_FALSE(own.Sent(Ipv4("10.0.0.1")));
  EXPECT_TRUE(own.Sent(Ipv4("10.0.0.2")));
}

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
