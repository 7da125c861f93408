// The loop of a list's expiry thread, and how its sweeps go about it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/memory.h"
#include "platform/waitable.h"
#include "support/completed.h"
#include "support/run_flag.h"

namespace talvorn {

// 99 pauses of 10 ms lie between two sweeps.
inline constexpr std::uint32_t kSweepGapMs = 990;

// A sweep lets go of the list after so many entries, and sleeps, so that whoever adds
// or reads gets at it.
inline constexpr std::size_t kSweepPiece = 1'000;
inline constexpr std::uint32_t kSweepPauseMs = 1;

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

// Counts the entries that sweeps have freed, so that their memory goes back to the
// system where it is worth the work.
class FreedEntries {
 public:
  void Count() { ++count_; }
  void GiveBack() {
    if (count_ < kWorthwhile) return;
    count_ = 0;
    platform::GiveBackFreedMemory();
  }

 private:
  static constexpr std::size_t kWorthwhile = 10'000;
  std::size_t count_ = 0;
};

}  // namespace talvorn
