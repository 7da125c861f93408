#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>

#include "client/client_presence.h"
#include "client/item_watch.h"
#include "client/reinitialisation.h"
#include "messages/messages.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/named_object.h"
#include "platform/registry.h"
#include "platform/thread.h"
#include "support/settings.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kLongMs = 30'000;

TEST(ItemWatch, APulseEndsTheWaitOfEveryWatcher) {
  const testing::ScratchMachine machine;
  std::atomic<int> released{0};
  const auto wait = [&released] {
    ItemWatch watch(1234);
    EXPECT_TRUE(watch.valid());
    if (watch.Wait(kLongMs) == ItemWatch::Outcome::kChanged) ++released;
    return 0u;
  };
  platform::Thread first = platform::Thread::Start("first", wait);
  platform::Thread second = platform::Thread::Start("second", wait);
  // Nobody can know when a thread begins to wait: pulse until both are back.
  while (released < 2) {
    SignalChange(1234);
    platform::SleepMs(1);
  }
  first.Join();
  second.Join();
}

TEST(ItemWatch, WaitsItsTimeAndCanBeInterrupted) {
  const testing::ScratchMachine machine;
  ItemWatch watch;
  const std::uint64_t start = platform::MonotonicMs();
  EXPECT_EQ(watch.Wait(50), ItemWatch::Outcome::kTimeToRead);
  EXPECT_GE(platform::MonotonicMs() - start, 50u);

  const auto interrupt = platform::Event::Create(platform::Event::Mode::kManualReset);
  interrupt.Set();
  EXPECT_EQ(watch.Wait(kLongMs, &interrupt), ItemWatch::Outcome::kInterrupted);
}

TEST(ItemWatch, WithoutAnEventTheIntervalRemains) {
  const testing::ScratchMachine machine;
  std::filesystem::remove_all(machine.root() / "run");
  std::ofstream(machine.root() / "run") << "no directory";
  ItemWatch watch;
  EXPECT_FALSE(watch.valid());
  const std::uint64_t start = platform::MonotonicMs();
  EXPECT_EQ(watch.Wait(50), ItemWatch::Outcome::kTimeToRead);
  EXPECT_GE(platform::MonotonicMs() - start, 50u);
}

TEST(ClientPresence, LastsAsLongAsTheObject) {
  const testing::ScratchMachine machine;
  const auto seen = [] { return platform::NamedMutex::Open(kClientMutex).valid(); };
  EXPECT_FALSE(seen());
  {
    const ClientPresence presence;
    EXPECT_TRUE(presence.held());
    EXPECT_TRUE(seen());
  }
  EXPECT_FALSE(seen());
}

TEST(Reinitialisation, LeavesARequestThatTheLocatorMarksAsDone) {
  const testing::ScratchMachine machine;
  constexpr auto kAddress = "192.168.1.10";
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kNotAsked);
  EXPECT_EQ(RequestReinitialisation(kAddress), ReinitialisationStatus::kPending);
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kPending);
  std::stringstream stored;
  stored << std::ifstream(machine.registry()).rdbuf();
  EXPECT_NE(stored.str().find("\"192.168.1.10\"=dword:00000000"), std::string::npos);

  auto key = platform::RegistryKey::Open(kInterfacesKey, platform::RegistryAccess::kReadWrite);
  ASSERT_TRUE(key.SetDword(u"192.168.1.10", 1));
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kDone);
  EXPECT_EQ(RequestReinitialisation(kAddress), ReinitialisationStatus::kPending);

  for (const char* text : {"", "192.168.1", "192.168.1.010", "192.168.1.256", "1.2.3.4 ", "::1",
                           "localhost", "0x7f.0.0.1"}) {
    EXPECT_EQ(RequestReinitialisation(text), ReinitialisationStatus::kNoAddress) << text;
  }
}

}  // namespace
}  // namespace talvorn
