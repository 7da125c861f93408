// The loop of a list's expiry thread.
#pragma once

#include <cstdint>

#include "platform/waitable.h"
#include "support/completed.h"
#include "support/run_flag.h"

namespace talvorn {

// 99 pauses of 10 ms lie between two sweeps.
inline constexpr std::uint32_t kSweepGapMs = 990;

// Calls `sweep` at once and then about once a second, until `running` is cleared.
template <class Sweep>
void SweepWhile(const RunFlag& running, Sweep sweep) {
  const platform::Waitable* const cleared[] = {&running.cleared()};
  while (running) {
    (void)Completed(sweep);
    platform::WaitLimit gap = kSweepGapMs;
    (void)platform::WaitForAny(cleared, gap);  // either way the flag is read again
  }
}

}  // namespace talvorn
