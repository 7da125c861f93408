#include "platform/network_interfaces.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/posix/private_network.h"
#include "platform/socket.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;

std::string Text(const Ipv4AddressRow& row) {
  return Ipv4Text(row.address) + " " + Ipv4Text(row.mask) + " " +
         std::to_string(row.interfaceIndex) + (row.type == kIpv4AddressPrimary ? " primary" : "");
}

using Texts = std::vector<std::string>;

class NetworkInterfaces : public testing::Test {
 protected:
  // Interfaces "one" (101) and "two" (102) of a network of our own, with cables
  // that end elsewhere.
  void SetUp() override {
    host_ = NetworkNamespace::Create();
    elsewhere_ = NetworkNamespace::Create();
    if (!host_ || !elsewhere_) GTEST_SKIP() << kNoNamespaces;
    Run(Pair("one", 101) + "link set one up\n" + Pair("two", 102) + "link set two up\n");
    ASSERT_TRUE(elsewhere_->Ip("link set one-end up\nlink set two-end up\n"));
  }

  [[nodiscard]] std::string Pair(const std::string& name, int index) const {
    return "link add " + name + " index " + std::to_string(index) + " type veth peer name " + name +
           "-end netns " + elsewhere_->name() + "\n";
  }
  void Run(const std::string& commands) const { ASSERT_TRUE(host_->Ip(commands)) << commands; }

  [[nodiscard]] std::vector<Ipv4AddressRow> Rows() const {
    return host_->Inside([] { return QueryIpv4AddressTable().value(); });
  }
  [[nodiscard]] Texts Table() const {
    Texts texts;
    for (const Ipv4AddressRow& row : Rows()) texts.push_back(Text(row));
    return texts;
  }
  [[nodiscard]] Ipv6Adapter Adapter(std::uint32_t index) const {
    const auto adapters = host_->Inside([] { return QueryIpv6Adapters().value(); });
    const auto found = std::find_if(adapters.begin(), adapters.end(),
                                    [&](const auto& a) { return a.ipv6IfIndex == index; });
    return found == adapters.end() ? Ipv6Adapter{} : *found;
  }

  // The system passes on a change of the link at its own pace.
  template <typename T>
  static void ExpectSoon(const std::function<T()>& query, const T& expected) {
    const std::uint64_t start = MonotonicMs();
    while (query() != expected && MonotonicMs() - start < kGenerousMs) SleepMs(5);
    EXPECT_EQ(query(), expected);
  }
  void ExpectTable(const Texts& expected) const {
    ExpectSoon<Texts>([this] { return Table(); }, expected);
  }
  void ExpectAdapter(std::uint32_t index, std::uint32_t flags, std::uint32_t status) const {
    ExpectSoon<std::uint32_t>([&] { return Adapter(index).flags; }, flags);
    ExpectSoon<std::uint32_t>([&] { return Adapter(index).operStatus; }, status);
  }

  std::optional<NetworkNamespace> host_;
  std::optional<NetworkNamespace> elsewhere_;
};

TEST_F(NetworkInterfaces, TableIsSortedByAddressWithMaskAndPrimaryFlag) {
  Run("addr add 192.168.1.10/24 brd + dev two\n"
      "addr add 192.168.1.11/24 dev two\n"
      "addr add 9.0.0.1/8 dev two\n"
      "addr add 10.1.2.3/32 dev one\n"
      "addr add 10.1.2.200/25 dev one\n"
      "addr add 172.16.0.1 peer 172.16.9.9/30 dev one\n");
  ExpectTable({"9.0.0.1 255.0.0.0 102 primary", "10.1.2.3 255.255.255.255 101 primary",
               "10.1.2.200 255.255.255.128 101 primary", "127.0.0.1 255.0.0.0 1 primary",
               "172.16.0.1 255.255.255.252 101 primary", "192.168.1.10 255.255.255.0 102 primary",
               "192.168.1.11 255.255.255.0 102"});
  EXPECT_EQ(Ipv4Text(Rows()[5].broadcastAddress), "192.168.1.255");
  EXPECT_EQ(Rows(), Rows());
}

TEST_F(NetworkInterfaces, TableHoldsWhatCanBeUsedNow) {
  const Texts both = {"10.0.1.1 255.255.255.0 101 primary", "10.0.2.1 255.255.255.0 102 primary",
                      "127.0.0.1 255.0.0.0 1 primary"};
  const Texts rest = {both[1], both[2]};
  Run("addr add 10.0.1.1/24 dev one\naddr add 10.0.2.1/24 dev two\n");
  ExpectTable(both);
  Run("link set one down\n");
  ExpectTable(rest);
  Run("link set one up\n");
  ExpectTable(both);
  ASSERT_TRUE(elsewhere_->Ip("link set one-end down\n"));  // the cable
  ExpectTable(rest);
  ASSERT_TRUE(elsewhere_->Ip("link set one-end up\n"));
  ExpectTable(both);
  Run("link set one multicast off\n");
  ExpectTable(rest);
}

TEST_F(NetworkInterfaces, RowTellsAnAddressThatWasMadeAnew) {
  const auto incarnation = [this] {
    const auto rows = Rows();
    return rows.empty() ? 0 : rows[0].incarnation;
  };
  Run("addr add 10.0.1.1/24 dev one\n");
  ExpectTable({"10.0.1.1 255.255.255.0 101 primary", "127.0.0.1 255.0.0.0 1 primary"});
  const std::uint32_t first = incarnation();

  // Down and up again, it is still the same one.
  Run("link set one down\nlink set one up\n");
  ExpectTable({"10.0.1.1 255.255.255.0 101 primary", "127.0.0.1 255.0.0.0 1 primary"});
  EXPECT_EQ(incarnation(), first);

  SleepMs(20);  // the system counts in hundredths of a second
  Run("addr del 10.0.1.1/24 dev one\naddr add 10.0.1.1/24 dev one\n");
  ExpectTable({"10.0.1.1 255.255.255.0 101 primary", "127.0.0.1 255.0.0.0 1 primary"});
  const std::uint32_t second = incarnation();
  EXPECT_NE(second, first);

  Run("addr del 10.0.1.1/24 dev one\naddr add 10.0.1.1/24 dev two\n");
  ExpectTable({"10.0.1.1 255.255.255.0 102 primary", "127.0.0.1 255.0.0.0 1 primary"});
  EXPECT_NE(incarnation(), second);
}

TEST_F(NetworkInterfaces, LongTablesAreReadWhole) {
  constexpr int kCount = 1200;
  std::string commands;
  for (int i = 0; i < kCount; ++i) {
    const std::string host = std::to_string(i / 200) + "." + std::to_string(i % 200 + 1);
    commands += "addr add 10.5." + host + "/16 dev one\n";
  }
  Run(commands);
  ExpectSoon<std::size_t>([this] { return Rows().size(); }, kCount + 1);
  const auto rows = Rows();
  EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
    return ntohl(a.address) < ntohl(b.address);
  }));
  const auto own = host_->Inside([] { return QueryInterfaceAddresses(101); });
  EXPECT_EQ(own.ipv4.size(), static_cast<std::size_t>(kCount));
}

TEST_F(NetworkInterfaces, Ipv6CountsOnceAnAddressCanBeUsed) {
  EXPECT_EQ(Adapter(1).ifType, kIfTypeSoftwareLoopback);
  EXPECT_EQ(Adapter(101).ifType, kIfTypeEthernet);
  Run("addr flush dev one\n");
  ExpectAdapter(101, 0, kOperStatusUp);

  // Nobody on the cable tells whether the address is taken, for a second.
  const std::uint64_t start = MonotonicMs();
  Run("addr add fd00::1/64 dev one\n");
  const std::uint32_t flags = Adapter(101).flags;
  if (MonotonicMs() - start < 200) {
    EXPECT_EQ(flags, 0u);
  }
  ExpectAdapter(101, kAdapterIpv6Enabled, kOperStatusUp);
  const auto own = host_->Inside([] { return QueryInterfaceAddresses(101); });
  EXPECT_EQ(own.ipv6, (std::vector<std::array<std::uint8_t, 16>>{
                          {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}));

  Run("link set one multicast off\n");
  ExpectAdapter(101, kAdapterIpv6Enabled | kAdapterNoMulticast, kOperStatusUp);
  ASSERT_TRUE(elsewhere_->Ip("link set one-end down\n"));
  ExpectSoon<std::uint32_t>([this] { return Adapter(101).operStatus; }, kOperStatusDown);
  Run("link del one\n");
  EXPECT_EQ(Adapter(101).ipv6IfIndex, 0u);
}

TEST_F(NetworkInterfaces, NamesLeadToIndices) {
  host_->Inside([] {
    EXPECT_EQ(InterfaceIndexFromName("two"), 102u);
    EXPECT_EQ(InterfaceIndexFromName("three"), 0u);
    EXPECT_TRUE(QueryInterfaceAddresses(999).ipv4.empty());
  });
}

}  // namespace
}  // namespace talvorn::platform
