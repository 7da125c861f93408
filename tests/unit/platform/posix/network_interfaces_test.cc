#include "platform/network_interfaces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/posix/private_network.h"
#include "platform/socket.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

using Texts = std::vector<std::string>;

class NetworkInterfaces : public CabledHost {
 protected:
  [[nodiscard]] std::vector<Ipv4AddressRow> Rows() const {
    return host_->Inside([] { return QueryIpv4AddressTable().value(); });
  }
  [[nodiscard]] Texts Table() const {
    Texts texts;
    for (const Ipv4AddressRow& row : Rows()) {
      texts.push_back(Ipv4Text(row.address) + " " + Ipv4Text(row.mask) + " " +
                      std::to_string(row.interfaceIndex) +
                      (row.type == kIpv4AddressPrimary ? " primary" : ""));
    }
    return texts;
  }
  [[nodiscard]] Ipv6Adapter Adapter(std::uint32_t index) const {
    const auto adapters = host_->Inside([] { return QueryIpv6Adapters().value(); });
    const auto found = std::ranges::find(adapters, index, &Ipv6Adapter::ipv6IfIndex);
    return found == adapters.end() ? Ipv6Adapter{} : *found;
  }

  // The system passes on a change of the link at its own pace.
  void ExpectTable(const Texts& expected) const {
    (void)testing::WaitUntil([&] { return Table() == expected; });
    EXPECT_EQ(Table(), expected);
  }
  void ExpectFlags(std::uint32_t index, std::uint32_t expected) const {
    (void)testing::WaitUntil([&] { return Adapter(index).flags == expected; });
    EXPECT_EQ(Adapter(index).flags, expected);
  }
};

TEST_F(NetworkInterfaces, TableIsSortedByAddressWithMaskAndPrimaryFlag) {
  OnHost(
      "addr add 192.168.1.10/24 brd + dev two\n"
      "addr add 192.168.1.11/24 dev two\n"
      "addr add 9.0.0.1/8 dev two\n"
      "addr add 10.1.2.3/32 dev one\n"
      "addr add 172.16.0.1 peer 172.16.9.9/30 dev one\n");
  ExpectTable({"9.0.0.1 255.0.0.0 102 primary", "10.1.2.3 255.255.255.255 101 primary",
               "127.0.0.1 255.0.0.0 1 primary", "172.16.0.1 255.255.255.252 101 primary",
               "192.168.1.10 255.255.255.0 102 primary", "192.168.1.11 255.255.255.0 102"});
  EXPECT_EQ(Ipv4Text(Rows()[4].broadcastAddress), "192.168.1.255");

  // What takes the system several messages to tell.
  std::string commands;
  for (int i = 0; i < 1'200; ++i) {
    commands += "addr add 10.5." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1) +
                "/16 dev one\n";
  }
  OnHost(commands);
  EXPECT_TRUE(testing::WaitUntil([this] { return Rows().size() == 1'206; }));
}

TEST_F(NetworkInterfaces, TableHoldsWhatCanBeUsedNow) {
  const Texts both = {"10.0.1.1 255.255.255.0 101 primary", "10.0.2.1 255.255.255.0 102 primary",
                      "127.0.0.1 255.0.0.0 1 primary"};
  const Texts rest = {both[1], both[2]};
  OnHost("addr add 10.0.1.1/24 dev one\naddr add 10.0.2.1/24 dev two\n");
  ExpectTable(both);
  OnHost("link set one down\n");
  ExpectTable(rest);
  OnHost("link set one up\n");
  ExpectTable(both);
  Elsewhere("link set one-end down\n");  // the cable
  ExpectTable(rest);
  Elsewhere("link set one-end up\n");
  ExpectTable(both);
  OnHost("link set one multicast off\n");
  ExpectTable(rest);
}

TEST_F(NetworkInterfaces, RowTellsAnAddressThatWasMadeAnew) {
  const Texts table = {"10.0.1.1 255.255.255.0 101 primary", "127.0.0.1 255.0.0.0 1 primary"};
  OnHost("addr add 10.0.1.1/24 dev one\n");
  ExpectTable(table);
  const std::uint32_t first = Rows().at(0).incarnation;
  // Down and up again, it is still the same one.
  OnHost("link set one down\nlink set one up\n");
  ExpectTable(table);
  EXPECT_EQ(Rows().at(0).incarnation, first);

  SleepMs(20);  // the system counts in hundredths of a second
  OnHost("addr del 10.0.1.1/24 dev one\naddr add 10.0.1.1/24 dev one\n");
  ExpectTable(table);
  EXPECT_NE(Rows().at(0).incarnation, first);
}

TEST_F(NetworkInterfaces, Ipv6CountsOnceAnAddressCanBeUsed) {
  EXPECT_EQ(Adapter(1).ifType, kIfTypeSoftwareLoopback);
  EXPECT_EQ(Adapter(101).ifType, kIfTypeEthernet);
  OnHost("addr flush dev one\n");
  ExpectFlags(101, 0);
  // Nobody on the cable tells whether the address is taken, for a second.
  const std::uint64_t start = MonotonicMs();
  OnHost("addr add fd00::1/64 dev one\n");
  const std::uint32_t flags = Adapter(101).flags;
  if (MonotonicMs() - start < 200) {
    EXPECT_EQ(flags, 0u);
  }
  ExpectFlags(101, kAdapterIpv6Enabled);

  OnHost("link set one multicast off\n");
  ExpectFlags(101, kAdapterIpv6Enabled | kAdapterNoMulticast);
  EXPECT_EQ(Adapter(101).operStatus, kOperStatusUp);
  Elsewhere("link set one-end down\n");
  EXPECT_TRUE(testing::WaitUntil([this] { return Adapter(101).operStatus == kOperStatusDown; }));
  OnHost("link del one\n");
  EXPECT_EQ(Adapter(101).ipv6IfIndex, 0u);
}

}  // namespace
}  // namespace talvorn::platform
