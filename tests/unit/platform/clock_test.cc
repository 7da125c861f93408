#include "platform/clock.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>

#include "platform/event.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

TEST(SystemClock, WakeEndsAWaitWithoutBeingConsumed) {
  for (const FileTime deadline : {SystemClock().SystemTime() + 3600 * kFileTimePerSecond,
                                  std::numeric_limits<FileTime>::max()}) {
    const Event wake = Event::Create(Event::Mode::kAutoReset);
    const std::uint64_t start = MonotonicMs();
    Thread waker = Thread::Start("waker", [&] {
      SleepMs(20);
      wake.Set();
      return 0u;
    });
    int waits = 0;
    while (WaitForAny(std::initializer_list<const Waitable*>{&wake}, 0) == WaitStatus::kTimeout) {
      SystemClock().WaitUntil(deadline, wake);
      ++waits;
    }
    EXPECT_LE(waits, 3);  // more only if somebody sets the clock meanwhile
    EXPECT_GE(MonotonicMs() - start, 18u);
    EXPECT_TRUE(wake.Test());
    waker.Join();
  }
}

}  // namespace
}  // namespace talvorn::platform
