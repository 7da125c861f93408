// Waiting for a condition that another thread brings about.
#pragma once

#include "platform/clock.h"
#include "platform/thread.h"

namespace talvorn::testing {

// False when the condition does not come true within a generous limit.
template <class Condition>
[[nodiscard]] bool WaitUntil(Condition condition) {
  constexpr std::uint64_t kLimitMs = 30'000;
  const std::uint64_t start = platform::MonotonicMs();
  while (!condition()) {
    if (platform::MonotonicMs() - start > kLimitMs) return false;
    platform::SleepMs(1);
  }
  return true;
}

}  // namespace talvorn::testing
