// Paces the passes of a thread: a pass follows when something is signalled, but never
// sooner than one tick after the last one, so that what happens within a tick is seen by
// one pass.
#pragma once

#include <cstdint>
#include <span>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/waitable.h"

namespace talvorn {

class PassPacer {
 public:
  explicit PassPacer(std::uint32_t tickMs) : tickMs_(tickMs), lastPass_(platform::MonotonicMs()) {}

  // Returns when the next pass may begin: one of `waitables` is signalled or
  // `limit` milliseconds have passed; says which.
  platform::WaitStatus AwaitNextPass(std::span<const platform::Waitable* const> waitables,
                                     platform::WaitLimit limit) {
    const platform::WaitStatus status = platform::WaitForAny(waitables, limit);
    const std::uint64_t sinceLast = platform::MonotonicMs() - lastPass_;
    if (sinceLast < tickMs_) platform::SleepMs(tickMs_ - static_cast<std::uint32_t>(sinceLast));
    lastPass_ = platform::MonotonicMs();
    return status;
  }

 private:
  std::uint32_t tickMs_;
  std::uint64_t lastPass_;
};

}  // namespace talvorn
