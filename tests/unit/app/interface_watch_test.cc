#include "app/interface_watch.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/interface_threads.h"
#include "platform/fault_injection.h"
#include "platform/settings_store.h"
#include "platform/text_encoding.h"
#include "support/debug_trace.h"
#include "support/settings.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

using platform::Ipv4AddressRow;
using platform::Ipv6Adapter;
using testing::Adapter;
using testing::Address;
using testing::Ids;
using testing::interfaceThreads;
using testing::Row;
using testing::Runs;
using Table = InterfaceWatch::Ipv4Table;
using Adapters = InterfaceWatch::Ipv6Adapters;

class InterfaceWatchTest : public ::testing::Test {
 protected:
  InterfaceWatchTest() {
    DebugTrace().SetEnabled(0);
    serviceRuns_.Set();
  }
  ~InterfaceWatchTest() override {
    watch_.ShutDownIpv4();
    watch_.ShutDownIpv6();
  }

  testing::ScratchMachine machine_;
  EventSource events_;
  CResponseList responses_;
  CItemList items_;
  RunFlag serviceRuns_;
  InterfaceWatch watch_{events_, responses_, items_, testing::RunUntilStopped, serviceRuns_};
};

TEST_F(InterfaceWatchTest, PrimaryAddressesOtherThanLoopbackHaveAThread) {
  watch_.WatchIpv4Interfaces(
      Table{Row("10.0.0.1"), Row("10.0.0.2", 0), Row("127.0.0.1"), Row("127.0.0.2")});
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("127.0.0.2")}));
  watch_.WatchIpv4Interfaces(std::nullopt);
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("127.0.0.2")})) << "not read is no change";
  watch_.WatchIpv4Interfaces(Table{Row("10.0.0.1", 0), Row("10.0.0.3")});
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("10.0.0.3")})) << "it is still an address";
  watch_.WatchIpv4Interfaces(Table{});
  EXPECT_TRUE(Runs({}));
}

TEST_F(InterfaceWatchTest, AThreadThatCannotStartIsTriedAgainAtTheNextLook) {
  const auto look = [this] {
    watch_.WatchIpv4Interfaces(Table{Row("10.0.0.1"), Row("10.0.0.2")});
    watch_.WatchIpv6Interfaces(Adapters{Adapter(9)});
  };
  platform::ArmFault(platform::Fault::kThreadStart, 3);
  look();
  platform::DisarmFaults();
  EXPECT_TRUE(Runs({}));
  look();
  EXPECT_TRUE(Runs({9, Address("10.0.0.1"), Address("10.0.0.2")}));
}

TEST_F(InterfaceWatchTest, AnAddressIsKnownAsOwnBeforeItsThreadStarts) {
  interfaceThreads.ownAtStart.clear();
  watch_.WatchIpv4Interfaces(Table{Row("10.0.0.1")});
  watch_.WatchIpv4Interfaces(Table{Row("10.0.0.1"), Row("10.0.0.2")});
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("10.0.0.2")}));
  EXPECT_EQ(interfaceThreads.ownAtStart, Ids({Address("10.0.0.1"), Address("10.0.0.2")}));
}

TEST_F(InterfaceWatchTest, ManyPendingReinitialisationsAreServedInOnePassUnlessTheServiceEnds) {
  std::vector<std::u16string> names = {u"10.0.0.1"};
  while (names.size() < 20'000) {
    const std::size_t number = names.size();
    names.push_back(platform::NarrowToWide("10.1." + std::to_string(number / 250) + '.' +
                                           std::to_string(number % 250)));
  }
  ASSERT_TRUE(platform::SettingsKey::Create(kInterfacesKey).SetNumbers(names, 0));
  const auto served = [&names] {
    const auto now = platform::SettingsKey::Open(kInterfacesKey, platform::SettingsAccess::kRead);
    return std::ranges::count(names, 1u, [&](const auto& name) { return now.Number(name); });
  };
  const Table table{Row("10.0.0.1"), Row("10.0.0.2")};
  watch_.WatchIpv4Interfaces(table);
  serviceRuns_.Clear();
  watch_.WatchIpv4Interfaces(table);
  EXPECT_EQ(served(), 0);
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("10.0.0.2")}));
  serviceRuns_.Set();
  watch_.WatchIpv4Interfaces(table);
  EXPECT_EQ(served(), std::ssize(names));
  EXPECT_TRUE(Runs({Address("10.0.0.2")}));
  watch_.WatchIpv4Interfaces(table);
  EXPECT_TRUE(Runs({Address("10.0.0.1"), Address("10.0.0.2")}));
}

TEST_F(InterfaceWatchTest, UsableIpv6InterfacesHaveAThread) {
  std::vector<Ipv6Adapter> adapters(5, Adapter(9));
  adapters[0].operStatus = platform::kOperStatusDown;
  adapters[1].flags = 0;
  adapters[2].flags |= platform::kAdapterNoMulticast;
  adapters[3].ifType = platform::kIfTypeSoftwareLoopback;
  adapters[4] = Adapter(12);
  watch_.WatchIpv6Interfaces(Adapters(adapters));
  EXPECT_TRUE(Runs({12}));
  watch_.WatchIpv6Interfaces(std::nullopt);
  EXPECT_TRUE(Runs({})) << "a query that fails counts as no interfaces at all";
}

}  // namespace
}  // namespace talvorn
