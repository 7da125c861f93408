#include "service/supervision.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <vector>

namespace talvorn::service {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kCannotStart = 0;

// Lives as it is told; once no life is left it is to be stopped, as it runs or in a pause.
class ToldProgram final : public Supervised {
 public:
  explicit ToldProgram(std::deque<std::uint64_t> lives) : lives_(std::move(lives)) {}

  bool Start() override {
    ++starts;
    return lives_.empty() || lives_.front() != kCannotStart || (lives_.pop_front(), false);
  }
  bool WaitForEnd() override {
    if (lives_.empty()) return false;
    nowMs_ += lives_.front();
    lives_.pop_front();
    return true;
  }
  bool PauseBeforeStart(std::uint32_t pauseMs) override {
    pauses.push_back(pauseMs);
    nowMs_ += pauseMs;
    return !lives_.empty() || !stopInPause;
  }
  std::uint64_t NowMs() override { return nowMs_; }

  int starts = 0;
  std::vector<std::uint32_t> pauses;
  bool stopInPause = false;

 private:
  std::deque<std::uint64_t> lives_;
  std::uint64_t nowMs_ = 1'000'000;
};

TEST(Supervision, ThePauseGrowsWhileTheProgramEndsSoon) {
  ToldProgram program({10, 59'999, 10, 10, 10, 10, 10, 10, 10});
  Supervise(program);
  EXPECT_THAT(program.pauses,
              ElementsAre(1'000, 2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000, 60'000));
  EXPECT_EQ(program.starts, 10);
}

TEST(Supervision, AMinuteOfLifeMakesThePauseShortAgain) {
  ToldProgram program({10, 10, 60'000, 10});
  Supervise(program);
  EXPECT_THAT(program.pauses, ElementsAre(1'000, 2'000, 1'000, 2'000));
}

TEST(Supervision, WhatCannotBeStartedIsTriedAgain) {
  ToldProgram program({kCannotStart, kCannotStart, kCannotStart, 3'600'000});
  Supervise(program);
  EXPECT_THAT(program.pauses, ElementsAre(1'000, 2'000, 4'000, 1'000));
  EXPECT_EQ(program.starts, 5);
}

TEST(Supervision, AStopCountsAtOnceWhileItRunsAndInAPause) {
  ToldProgram running({});
  Supervise(running);
  EXPECT_EQ(running.starts, 1);
  EXPECT_THAT(running.pauses, IsEmpty());

  ToldProgram pausing({10});
  pausing.stopInPause = true;
  Supervise(pausing);
  EXPECT_EQ(pausing.starts, 1);
}

}  // namespace
}  // namespace talvorn::service
