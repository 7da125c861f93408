// The wall clock, as something that tests can replace. Times are Windows file
// times: 100-nanosecond units since 1601-01-01.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/waitable.h"

namespace talvorn::platform {

using FileTime = std::uint64_t;

inline constexpr FileTime kFileTimePerMs = 10'000;
inline constexpr FileTime kFileTimePerSecond = 10'000'000;
// 1601-01-01 to 1970-01-01, in seconds.
inline constexpr std::uint64_t kSecondsFrom1601To1970 = 11'644'473'600;

class Clock {
 public:
  virtual ~Clock() = default;

  [[nodiscard]] virtual FileTime SystemTime() = 0;  // UTC
  [[nodiscard]] virtual FileTime LocalTime() = 0;   // the machine's time zone

  virtual void Sleep(std::uint32_t milliseconds) = 0;

  // Blocks until the system time reaches `deadline`, `wake` is signalled, or somebody sets the
  // clock (on Windows within a second). Consumes nothing, and may return early.
  virtual void WaitUntil(FileTime deadline, const Waitable& wake) = 0;

 protected:
  Clock() = default;
  Clock(const Clock&) = default;
  Clock& operator=(const Clock&) = default;
};

[[nodiscard]] Clock& SystemClock();

// Milliseconds of a clock that nobody sets; for measuring intervals.
[[nodiscard]] inline std::uint64_t MonotonicMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::floor<std::chrono::milliseconds>(now).count());
}

}  // namespace talvorn::platform
