#include "app/interface_watch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>

#include "platform/fault_injection.h"
#include "platform/socket.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/trace_capture.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Ipv4AddressRow;
using platform::Ipv6Adapter;
using Table = InterfaceWatch::Ipv4Table;

Ipv4AddressRow Row(const char* address, std::uint16_t type = platform::kIpv4AddressPrimary,
                   const char* mask = "255.255.255.0") {
  return {.address = platform::ParseIpv4(address), .mask = platform::ParseIpv4(mask), .type = type};
}

Ipv6Adapter Adapter(std::uint32_t index) {
  return {.ipv6IfIndex = index,
          .flags = platform::kAdapterIpv6Enabled,
          .operStatus = platform::kOperStatusUp,
          .ifType = platform::kIfTypeEthernet};
}

std::atomic<int> running;

std::uint32_t RunUntilStopped(const ThreadItem& item) {
  ++running;
  const platform::Waitable* const cleared[] = {&item.running.cleared()};
  while (item.running) (void)platform::WaitForAny(cleared, std::nullopt);
  --running;
  return 0;
}

class InterfaceWatchTest : public ::testing::Test {
 protected:
  InterfaceWatchTest() { DebugTrace().SetPrefix(u""); }
  ~InterfaceWatchTest() override {
    watch_.ShutDownIpv4();
    watch_.ShutDownIpv6();
  }

  // What one pass traces, without the hexadecimal handle values.
  std::string TraceOf(const std::optional<Table>& table) {
    return Traced([&] { watch_.WatchIpv4Interfaces(table); });
  }
  std::string TraceOf(const std::optional<InterfaceWatch::Ipv6Adapters>& adapters) {
    return Traced([&] { watch_.WatchIpv6Interfaces(adapters); });
  }
  template <class Pass>
  static std::string Traced(Pass pass) {
    DebugTrace().SetEnabled(1);
    testing::TraceCapture capture;
    pass();
    DebugTrace().SetEnabled(0);
    std::string text;
    std::istringstream lines(capture.Take());
    for (std::string line; std::getline(lines, line); text += line + '\n') {
      for (std::size_t at = line.find("[0x"); at != std::string::npos; at = line.find("[0x"))
        line.erase(at, line.find(']', at) - at + 1);
    }
    return text;
  }
  static bool Run(int threads) {
    return testing::WaitUntil([&] { return running == threads; });
  }

  testing::ScratchMachine machine_;
  EventSource events_;
  CResponseList responses_;
  CItemList items_;
  InterfaceWatch watch_{events_, responses_, items_, RunUntilStopped};
};

TEST_F(InterfaceWatchTest, StartsAThreadPerPrimaryAddressOtherThanLoopback) {
  const Table table{Row("10.0.0.1"), Row("10.0.0.2", 0), Row("127.0.0.1"), Row("127.0.0.2")};
  EXPECT_EQ(TraceOf(table),
            "Network interface IPv4: 10.0.0.1 (16777226) located !\n"
            "Network interface IPv4: 127.0.0.2 (33554559) located !\n");
  EXPECT_EQ(TraceOf(table), "");
  EXPECT_TRUE(Run(2));
}

TEST_F(InterfaceWatchTest, StopsWhatHasGoneBeforeItStartsWhatIsNew) {
  (void)TraceOf(Table{Row("10.0.0.1"), Row("10.0.0.2")});
  EXPECT_EQ(TraceOf(Table{Row("10.0.0.2"), Row("10.0.0.3")}),
            "Network interfaces have been changed!\n"
            "Network interface IPv4: 10.0.0.1 (16777226) switched down !\n"
            "ThreadList DeleteItem Thread end ID = 16777226\n"
            "Network interface IPv4: 10.0.0.3 (50331658) located !\n");
  EXPECT_TRUE(Run(2));
  EXPECT_TRUE(TraceOf(Table{}).starts_with("Network interfaces have been changed!\n"));
  EXPECT_EQ(running, 0);
}

TEST_F(InterfaceWatchTest, ChangesThatConcernNoThreadAreOnlyReported) {
  (void)TraceOf(Table{Row("10.0.0.1")});
  for (const Table& table : {Table{Row("10.0.0.1", 0)}, Table{Row("10.0.0.1", 0, "255.0.0.0")},
                             Table{Row("10.0.0.1", 0, "255.0.0.0"), Row("10.0.0.7", 0)}}) {
    EXPECT_EQ(TraceOf(table), "Network interfaces have been changed!\n");
  }
  EXPECT_EQ(TraceOf(std::optional<Table>()), "") << "a table that cannot be read is no change";
  EXPECT_TRUE(Run(1));
}

TEST_F(InterfaceWatchTest, WithoutAThreadTheItemStaysInTheList) {
  platform::ArmFault(platform::Fault::kThreadStart, 1);
  const Table table{Row("10.0.0.1")};
  EXPECT_EQ(TraceOf(table), "Network interface IPv4: 10.0.0.1 (16777226) located !\n");
  platform::DisarmFaults();
  EXPECT_NE(TraceOf(Table{}).find("switched down"), std::string::npos);
}

TEST_F(InterfaceWatchTest, FollowsUsableIpv6Interfaces) {
  using Adapters = std::optional<InterfaceWatch::Ipv6Adapters>;
  std::vector<Ipv6Adapter> unusable(4, Adapter(9));
  unusable[0].operStatus = platform::kOperStatusDown;
  unusable[1].flags = 0;
  unusable[2].flags |= platform::kAdapterNoMulticast;
  unusable[3].ifType = platform::kIfTypeSoftwareLoopback;
  EXPECT_EQ(TraceOf(Adapters(unusable)), "");

  EXPECT_EQ(TraceOf(Adapters({Adapter(12), Adapter(2)})),
            "Ipv6IfIndex (IPv6 interface): 12 Flags:100 Stat:1\n"
            "Ipv6IfIndex (IPv6 interface): 2 Flags:100 Stat:1\n"
            "Network interface IPv6: 2 located !\nNetwork interface IPv6: 12 located !\n");
  // New threads start before old ones stop.
  EXPECT_EQ(TraceOf(Adapters({Adapter(12), Adapter(30)})),
            "Ipv6IfIndex (IPv6 interface): 12 Flags:100 Stat:1\n"
            "Ipv6IfIndex (IPv6 interface): 30 Flags:100 Stat:1\n"
            "Network interface IPv6: 30 located !\nNetwork IPv6 interface: 2 shut down !\n"
            "ThreadList DeleteItem Thread end ID = 2\n");
  EXPECT_TRUE(Run(2));
  // A query that fails counts as no interfaces at all.
  (void)TraceOf(Adapters());
  EXPECT_EQ(running, 0);
}

}  // namespace
}  // namespace talvorn
