#include "platform/network_interfaces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "platform/address_owner.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

std::uint32_t HostOrder(std::uint32_t address) { return _byteswap_ulong(address); }

TEST(NetworkInterfaces, TableIsSortedAndStaysTheSame) {
  const auto rows = QueryIpv4AddressTable();
  ASSERT_TRUE(rows.has_value());
  EXPECT_TRUE(std::ranges::is_sorted(
      *rows, {}, [](const Ipv4AddressRow& row) { return HostOrder(row.address); }));
  const auto loopback = std::ranges::find(*rows, ParseIpv4("127.0.0.1"), &Ipv4AddressRow::address);
  ASSERT_NE(loopback, rows->end());
  EXPECT_EQ(loopback->mask, ParseIpv4("255.0.0.0"));
  EXPECT_EQ(QueryIpv4AddressTable(), rows);
}

TEST(NetworkInterfaces, AddressesAreTheirInterfaces) {
  const auto rows = QueryIpv4AddressTable();
  ASSERT_TRUE(rows.has_value());
  for (const Ipv4AddressRow& row : *rows) {
    EXPECT_TRUE(IsLocalAddress(SocketAddress::Ipv4(row.address, 4817)));
    EXPECT_EQ(InterfaceOfIpv4Address(row.address), row.interfaceIndex);
    EXPECT_EQ(InterfaceIndexFromName(std::to_string(row.interfaceIndex).c_str()),
              row.interfaceIndex);
    const InterfaceAddresses addresses = QueryInterfaceAddresses(row.interfaceIndex);
    EXPECT_EQ(std::ranges::count(addresses.ipv4, row.address), 1);
    for (const auto& ipv6 : addresses.ipv6)
      EXPECT_TRUE(IsLocalAddress(SocketAddress::Ipv6(ipv6, 0, 0)));
  }
  EXPECT_FALSE(IsLocalAddress(SocketAddress::Ipv4(ParseIpv4("192.0.2.1"), 4817)));
  EXPECT_FALSE(IsLocalAddress(SocketAddress::Ipv6({0x20, 0x01, 0x0D, 0xB8}, 0, 4817)));
  EXPECT_FALSE(IsLocalAddress(SocketAddress()));
  EXPECT_EQ(InterfaceOfIpv4Address(ParseIpv4("192.0.2.1")), 0u);
  EXPECT_EQ(InterfaceIndexFromName("no interface has this name"), 0u);
  EXPECT_EQ(InterfaceIndexFromName("4000000000"), 0u);
  EXPECT_TRUE(QueryInterfaceAddresses(4'000'000'000).ipv4.empty());
}

TEST(NetworkInterfaces, AdaptersTellTheirState) {
  const auto adapters = QueryIpv6Adapters();
  ASSERT_TRUE(adapters.has_value());
  EXPECT_TRUE(std::ranges::any_of(
      *adapters, [](const Ipv6Adapter& a) { return a.ifType == kIfTypeSoftwareLoopback; }));
  for (const Ipv6Adapter& adapter : *adapters) EXPECT_GE(adapter.operStatus, kOperStatusUp);
}

}  // namespace
}  // namespace talvorn::platform
