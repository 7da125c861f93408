#include "platform/clock.h"

#include <gtest/gtest.h>

#include "platform/event.h"

namespace talvorn::platform {
namespace {

// Long enough for a timer of the system, which is set once and not looked at.
TEST(SystemClock, LongWaitEndsAtItsDeadlineWithoutWakingMeanwhile) {
  constexpr FileTime kGenerous = 30 * kFileTimePerSecond;
  const Event wake = Event::Create(Event::Mode::kAutoReset);
  const FileTime deadline = SystemClock().SystemTime() + 2'500 * kFileTimePerMs;
  int waits = 0;
  while (SystemClock().SystemTime() < deadline) {
    SystemClock().WaitUntil(deadline, wake);
    ++waits;
  }
  EXPECT_LE(waits, 2);  // more only if somebody sets the clock meanwhile
  EXPECT_LT(SystemClock().SystemTime(), deadline + kGenerous);
}

}  // namespace
}  // namespace talvorn::platform
