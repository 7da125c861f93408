#include "platform/network_interfaces.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/posix/descriptor.h"
#include "platform/socket.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

using Texts = std::vector<std::string>;

// On a host of its own with the interfaces "one" (index 101) and "two" (102); the other
// ends of their cables are "one-end" and "two-end".
class NetworkInterfaces : public ::testing::Test {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs root to make a network of its own";
    Ip("link set lo up\n"
       "link add one index 101 type veth peer name one-end\n"
       "link add two index 102 type veth peer name two-end\n"
       "link set one up\nlink set one-end up\nlink set two up\nlink set two-end up\n");
  }
  void TearDown() override { (void)setns(before_.get(), CLONE_NEWNET); }

  // Commands of ip(8), one a line.
  static void Ip(const std::string& commands) {
    FILE* const ip = popen("ip -batch -", "w");
    ASSERT_TRUE(ip != nullptr && fputs(commands.c_str(), ip) >= 0);
    ASSERT_EQ(pclose(ip), 0) << commands;
  }
  static Texts Table() {
    const std::vector<Ipv4AddressRow> rows = QueryIpv4AddressTable().value();
    Texts texts;
    for (const Ipv4AddressRow& row : rows) {
      texts.push_back(Ipv4Text(row.address) + " " + Ipv4Text(row.mask) + " " +
                      std::to_string(row.interfaceIndex) +
                      (row.type == kIpv4AddressPrimary ? " primary" : ""));
    }
    return texts;
  }
  static Ipv6Adapter Adapter(std::uint32_t index) {
    const auto adapters = QueryIpv6Adapters().value();
    const auto found = std::ranges::find(adapters, index, &Ipv6Adapter::ipv6IfIndex);
    return found == adapters.end() ? Ipv6Adapter{} : *found;
  }
  // The system passes on a change of the link at its own pace.
  static void ExpectTable(const Texts& expected) {
    (void)testing::WaitUntil([&] { return Table() == expected; });
    EXPECT_EQ(Table(), expected);
  }
  static void ExpectFlags(std::uint32_t index, std::uint32_t expected) {
    (void)testing::WaitUntil([&] { return Adapter(index).flags == expected; });
    EXPECT_EQ(Adapter(index).flags, expected);
  }

 private:
  Descriptor before_{open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)};
};

TEST_F(NetworkInterfaces, TableIsSortedByAddressWithMaskAndPrimaryFlag) {
  Ip("addr add 192.168.1.10/24 brd + dev two\n"
     "addr add 192.168.1.11/24 dev two\n"
     "addr add 9.0.0.1/8 dev two\n"
     "addr add 10.1.2.3/32 dev one\n"
     "addr add 172.16.0.1 peer 172.16.9.9/30 dev one\n");
  ExpectTable({"9.0.0.1 255.0.0.0 102 primary", "10.1.2.3 255.255.255.255 101 primary",
               "127.0.0.1 255.0.0.0 1 primary", "172.16.0.1 255.255.255.252 101 primary",
               "192.168.1.10 255.255.255.0 102 primary", "192.168.1.11 255.255.255.0 102"});
  EXPECT_EQ(Ipv4Text(QueryIpv4AddressTable()->at(4).broadcastAddress), "192.168.1.255");

  // What takes the system several messages to tell.
  std::string commands;
  for (int i = 0; i < 1'200; ++i) {
    commands += "addr add 10.5." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1) +
                "/16 dev one\n";
  }
  Ip(commands);
  EXPECT_TRUE(testing::WaitUntil([] { return Table().size() == 1'206; }));
}

TEST_F(NetworkInterfaces, TableHoldsWhatCanBeUsedNow) {
  const Texts both = {"10.0.1.1 255.255.255.0 101 primary", "10.0.2.1 255.255.255.0 102 primary",
                      "127.0.0.1 255.0.0.0 1 primary"};
  const Texts rest = {both[1], both[2]};
  Ip("addr add 10.0.1.1/24 dev one\naddr add 10.0.2.1/24 dev two\n");
  ExpectTable(both);
  for (const std::string link : {"one", "one-end"}) {  // the interface, and its cable
    Ip("link set " + link + " down\n");
    ExpectTable(rest);
    Ip("link set " + link + " up\n");
    ExpectTable(both);
  }
  Ip("link set one multicast off\n");
  ExpectTable(rest);
}

TEST_F(NetworkInterfaces, Ipv6CountsOnceAnAddressCanBeUsed) {
  EXPECT_EQ(Adapter(1).ifType, kIfTypeSoftwareLoopback);
  EXPECT_EQ(Adapter(101).ifType, kIfTypeEthernet);
  Ip("addr flush dev one\n");
  ExpectFlags(101, 0);
  // Nobody on the cable tells whether the address is taken, for a second.
  const std::uint64_t start = MonotonicMs();
  Ip("addr add fd00::1/64 dev one\n");
  const std::uint32_t flags = Adapter(101).flags;
  if (MonotonicMs() - start < 200) {
    EXPECT_EQ(flags, 0u);
  }
  ExpectFlags(101, kAdapterIpv6Enabled);

  Ip("link set one multicast off\n");
  ExpectFlags(101, kAdapterIpv6Enabled | kAdapterNoMulticast);
  EXPECT_EQ(Adapter(101).operStatus, kOperStatusUp);
  Ip("link set one-end down\n");
  EXPECT_TRUE(testing::WaitUntil([] { return Adapter(101).operStatus == kOperStatusDown; }));
  Ip("link del one\n");
  EXPECT_EQ(Adapter(101).ipv6IfIndex, 0u);
}

}  // namespace
}  // namespace talvorn::platform
