#include "platform/network_interfaces.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>

namespace talvorn::platform {
namespace {

// In a thread of its own, which alone leaves the machine's network.
void OnAHostOfItsOwn(const std::function<void()>& test) {
  bool entered = false;
  std::thread([&] {
    entered = unshare(CLONE_NEWNET) == 0;
    if (entered) test();
  }).join();
  if (!entered) GTEST_SKIP() << "needs root to make a network of its own";
}

// More of them than the kernel's notes of changes have room for.
TEST(NetworkInterfaces, ATableOfSeveralMessagesIsWholeAndSorted) {
  OnAHostOfItsOwn([] {
    EXPECT_TRUE(QueryIpv4AddressTable()->empty());
    constexpr std::size_t kAddresses = 1'200;
    std::string commands = "link set lo up\naddr add 9.0.0.1/8 dev lo\n";
    for (std::size_t i = 0; i < kAddresses; ++i) {
      commands += "addr add 10.5." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1) +
                  "/16 dev lo\n";
    }
    FILE* const ip = popen("ip -batch -", "w");
    ASSERT_TRUE(ip != nullptr && fputs(commands.c_str(), ip) >= 0);
    ASSERT_EQ(pclose(ip), 0);
    const auto rows = QueryIpv4AddressTable().value();
    const auto adapters = QueryIpv6Adapters().value();
    // IPv6 goes and comes back.
    ASSERT_EQ(system("ip link set lo mtu 1000 && ip link set lo mtu 65536"), 0);
    const auto later = QueryIpv6Adapters().value();
    EXPECT_EQ(rows.size(), kAddresses + 2);
    EXPECT_EQ(Ipv4Text(rows.front().address), "9.0.0.1");
    EXPECT_EQ(Ipv4Text(rows.back().address), "127.0.0.1");
    EXPECT_EQ(std::ranges::count(rows, kIpv4AddressPrimary, &Ipv4AddressRow::type), 3);
    const auto loopback = HostAddress::Ipv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
                                            adapters[0].ipv6IfIndex);
    ASSERT_FALSE(adapters[0].addresses.empty());
    EXPECT_EQ(adapters[0].addresses[0], loopback);
    EXPECT_NE(adapters[0].incarnation, later[0].incarnation);
  });
}

}  // namespace
}  // namespace talvorn::platform
