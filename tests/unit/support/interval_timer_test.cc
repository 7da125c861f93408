#include "support/interval_timer.h"

#include <gtest/gtest.h>

#include "testing/fake_clock.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using testing::FakeClock;
using testing::WaitUntil;

class IntervalTimerTest : public ::testing::Test {
 protected:
  // A running timer whose start-up pause begins now.
  void Start(std::uint64_t periodMs) {
    timer_.period = periodMs;
    timer_.Start();
    ASSERT_TRUE(WaitUntil([this] { return clock_.sleepers() == 1; }));
  }
  void EndPause() {
    clock_.Advance(1'000);
    ASSERT_TRUE(WaitUntil([this] { return clock_.sleepers() == 0; }));
  }
  bool FiresSoon() { return timer_.event.Wait(30'000) == platform::WaitStatus::kSignalled; }
  // Gives the thread ample time to fire wrongly.
  bool StaysQuiet() { return timer_.event.Wait(50) == platform::WaitStatus::kTimeout; }

  ~IntervalTimerTest() override {
    timer_.running.Clear();
    clock_.Advance(1'000);
  }

  FakeClock clock_;
  CIntervalTimer timer_{clock_};
};

TEST_F(IntervalTimerTest, ARestartPutsTheFiringOffByAFullPeriod) {
  Start(5'000);
  EndPause();
  for (int i = 0; i < 10; ++i) {
    clock_.Advance(900);
    timer_.Restart();
    EXPECT_EQ(timer_.Elapsed(), 0u);
  }
  EXPECT_TRUE(StaysQuiet());
  clock_.Advance(5'000);
  EXPECT_TRUE(FiresSoon());
}

TEST_F(IntervalTimerTest, ARestartForgetsAFiringThatNobodySaw) {
  Start(2'000);
  EndPause();
  clock_.Advance(1'000);
  ASSERT_TRUE(FiresSoon());
  timer_.event.Set();
  timer_.Restart();
  EXPECT_FALSE(timer_.event.Test());
}

TEST_F(IntervalTimerTest, TheClockStandsStillDuringTheStartPause) {
  Start(3'000);
  clock_.Advance(900);
  timer_.Restart();
  EXPECT_EQ(timer_.Elapsed(), 0u);
  clock_.Advance(100);
  ASSERT_TRUE(WaitUntil([this] { return clock_.sleepers() == 0; }));
  // The restart counted from the start: 2 s are left, not 2.9 s.
  clock_.Advance(2'000);
  EXPECT_TRUE(FiresSoon());
}

TEST_F(IntervalTimerTest, AClockThatIsSetFiresAtOnce) {
  Start(60'000);
  EndPause();
  EXPECT_TRUE(StaysQuiet());
  clock_.SetBack(3'600'000);
  EXPECT_TRUE(FiresSoon());
  clock_.Advance(3'600'000);
  EXPECT_TRUE(FiresSoon());
}

}  // namespace
}  // namespace talvorn
