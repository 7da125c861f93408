#include "platform/event.h"

#include <gtest/gtest.h>

#include <array>

#include "platform/clock.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;

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

}  // namespace
}  // namespace talvorn::platform
