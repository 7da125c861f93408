// When what failed is tried again: every few seconds, until it has succeeded.
#pragma once

#include <cstdint>

#include "platform/clock.h"
#include "platform/waitable.h"

namespace talvorn {

class RetryPace {
 public:
  // Before each try, and after the one that succeeded.
  void Begin() { due_ = platform::MonotonicMs() + kPauseMs; }
  void End() { due_ = kNever; }

  // Whether something waits for its next try, and whether that is due.
  [[nodiscard]] bool waits() const { return due_ != kNever; }
  [[nodiscard]] bool Due() const { return waits() && platform::MonotonicMs() >= due_; }
  // Until the next try; no limit while nothing waits for one.
  [[nodiscard]] platform::WaitLimit TimeLeft() const {
    if (!waits()) return {};
    const std::uint64_t now = platform::MonotonicMs();
    return now >= due_ ? 0 : static_cast<std::uint32_t>(due_ - now);
  }

 private:
  static constexpr std::uint32_t kPauseMs = 3'000;
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};

  std::uint64_t due_ = kNever;
};

}  // namespace talvorn
