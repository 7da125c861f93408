#include "platform/thread.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/clock.h"
#include "platform/event.h"

namespace talvorn::platform {
namespace {

TEST(Thread, JoinForGivesUpOnAThreadThatRunsOn) {
  auto go = std::make_shared<Event>(Event::Create(Event::Mode::kManualReset));
  auto done = std::make_shared<Event>(Event::Create(Event::Mode::kManualReset));
  const auto wait = [go, done] {
    (void)go->Wait({});
    done->Set();
    return 0u;
  };
  Thread late = Thread::Start("late", wait);
  const std::uint64_t start = MonotonicMs();
  EXPECT_FALSE(late.JoinFor(30));
  EXPECT_GE(MonotonicMs() - start, 29u);
  EXPECT_FALSE(late.valid());

  // Neither does dropping the handle end or wait for a thread.
  { const Thread dropped = Thread::Start("dropped", wait); }
  Thread joined = Thread::Start("joined", wait);
  EXPECT_FALSE(done->Test());
  go->Set();
  EXPECT_EQ(done->Wait({}), WaitStatus::kSignalled);
  EXPECT_TRUE(joined.JoinFor(30'000));
}

}  // namespace
}  // namespace talvorn::platform
