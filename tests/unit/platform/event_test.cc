#include "platform/event.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;

TEST(Event, AutoResetIsConsumedByTestAndByWaitAndManualResetStaysSet) {
  const Event once = Event::Create(Event::Mode::kAutoReset);
  const Event stays = Event::Create(Event::Mode::kManualReset);
  EXPECT_EQ(once.Wait(0), WaitStatus::kTimeout);
  EXPECT_TRUE(once.Set() && once.Set() && stays.Set());
  EXPECT_TRUE(once.Test() && stays.Test());
  EXPECT_FALSE(once.Test()) << "setting twice is setting once";
  EXPECT_TRUE(once.Set());
  EXPECT_EQ(once.Wait({}), WaitStatus::kSignalled);
  EXPECT_EQ(once.Wait(0), WaitStatus::kTimeout);
  EXPECT_EQ(stays.Wait({}), WaitStatus::kSignalled);
  EXPECT_TRUE(once.Set() && once.Reset() && stays.Reset() && stays.Reset());
  EXPECT_FALSE(once.Test() || stays.Test());
}

TEST(Event, ThatCouldNotBeMadeFailsWithoutHarm) {
  ArmFault(Fault::kEventCreate, 1, 1);
  const Event before = Event::Create(Event::Mode::kAutoReset);
  const Event none = Event::Create(Event::Mode::kAutoReset);
  const Event after = Event::Create(Event::Mode::kAutoReset);
  DisarmFaults();
  EXPECT_TRUE(before.valid());
  EXPECT_FALSE(none.valid());
  EXPECT_TRUE(after.valid());
  EXPECT_FALSE(none.Set());
  EXPECT_FALSE(none.Reset());
  EXPECT_FALSE(none.Test());
  EXPECT_EQ(none.Wait({}), WaitStatus::kFailed);
}

TEST(WaitForAny, ReportsWithoutConsuming) {
  const Event a = Event::Create(Event::Mode::kAutoReset);
  const Event b = Event::Create(Event::Mode::kAutoReset);
  const std::array<const Waitable*, 3> all{&a, nullptr, &b};
  EXPECT_EQ(WaitForAny(all, 0), WaitStatus::kTimeout);
  b.Set();
  EXPECT_EQ(WaitForAny(all, {}), WaitStatus::kSignalled);
  a.Set();
  EXPECT_EQ(WaitForAny(all, {}), WaitStatus::kSignalled);
  EXPECT_TRUE(a.Test());
  EXPECT_EQ(WaitForAny(all, {}), WaitStatus::kSignalled);
  EXPECT_TRUE(b.Test());
  EXPECT_EQ(WaitForAny(all, 1), WaitStatus::kTimeout);
}

TEST(WaitForAny, WaitsForMoreThanAHandful) {
  std::vector<Event> events;
  std::vector<const Waitable*> all;
  for (int i = 0; i < 60; ++i) events.push_back(Event::Create(Event::Mode::kAutoReset));
  for (const Event& event : events) all.push_back(&event);
  EXPECT_EQ(WaitForAny(all, 0), WaitStatus::kTimeout);
  events.back().Set();
  EXPECT_EQ(WaitForAny(all, {}), WaitStatus::kSignalled);
}

TEST(WaitForAny, LastsAsLongAsAskedButPollsWhereAHandleIsMissing) {
  const Event event = Event::Create(Event::Mode::kAutoReset);
  const Event none;
  const std::array<const Waitable*, 1> whole{&event};
  const std::array<const Waitable*, 2> partial{&event, &none};

  std::uint64_t start = MonotonicMs();
  EXPECT_EQ(WaitForAny(whole, 50), WaitStatus::kTimeout);
  EXPECT_GE(MonotonicMs() - start, 49u);

  // For ever, were it not for the one without a handle.
  start = MonotonicMs();
  EXPECT_EQ(WaitForAny(partial, {}), WaitStatus::kTimeout);
  EXPECT_GE(MonotonicMs() - start, kPollTickMs - 1);
  EXPECT_EQ(WaitForAny(partial, kGenerousMs), WaitStatus::kTimeout);
  EXPECT_LT(MonotonicMs() - start, kGenerousMs);
  event.Set();
  EXPECT_EQ(WaitForAny(partial, {}), WaitStatus::kSignalled);
}

// What one thread wrote before it set an event, the thread that sees the event set
// reads; the thread sanitizer checks it for both kinds.
TEST(Event, HandsDataFromThreadToThread) {
  constexpr int kRounds = 200;
  for (const auto mode : {Event::Mode::kAutoReset, Event::Mode::kManualReset}) {
    const Event full = Event::Create(mode);
    const Event empty = Event::Create(mode);
    int value = 0;
    int sum = 0;
    Thread producer = Thread::Start("producer", [&] {
      for (int i = 1; i <= kRounds; ++i) {
        value = i;
        full.Set();
        if (empty.Wait(kGenerousMs) != WaitStatus::kSignalled) return 1u;
        empty.Reset();
      }
      return 0u;
    });
    for (int i = 1; i <= kRounds; ++i) {
      const Waitable* const waited = &full;
      ASSERT_EQ(WaitForAny({&waited, 1}, kGenerousMs), WaitStatus::kSignalled);
      ASSERT_TRUE(full.Test());
      full.Reset();
      sum += value;
      empty.Set();
    }
    EXPECT_TRUE(producer.Join());
    EXPECT_EQ(sum, kRounds * (kRounds + 1) / 2);
  }
}

}  // namespace
}  // namespace talvorn::platform
