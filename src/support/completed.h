// What a shortage of memory costs a thread: the pass that met it, never the thread.
// Everything a pass calls may throw std::bad_alloc; what it has not done by then is
// left to the next pass.
#pragma once

#include <cstdint>
#include <new>

#include "platform/waitable.h"
#include "support/run_flag.h"

namespace talvorn {

// Runs `step`. False when it was broken off for want of memory.
template <class Step>
bool Completed(Step step) {
  try {
    step();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Runs `step`, and again until there was memory for all of it or `running` is
// cleared. For what a thread cannot do without.
template <class Step>
void CompleteWhile(const RunFlag& running, Step step) {
  constexpr std::uint32_t kPauseMs = 10;
  const platform::Waitable* const cleared[] = {&running.cleared()};
  while (!Completed(step) && running) (void)platform::WaitForAny(cleared, kPauseMs);
}

}  // namespace talvorn
