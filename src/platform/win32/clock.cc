#include "platform/clock.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <utility>

#include "platform/thread.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wait.h"

namespace talvorn::platform {
namespace {

// How late a clock change may be noticed. Windows tells only windows and services of it,
// so this process has to poll.
constexpr std::uint32_t kClockStepMs = 1000;

// A smaller change may be a delay between two clock readings.
constexpr std::int64_t kSmallestChangeMs = 250;

// Later deadlines (from the year 9999 on) are never reached.
constexpr FileTime kNever = 2'650'467'743'999'999'999;

FileTime ToFileTime(const FILETIME& time) {
  return FileTime{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

FILETIME Now() {
  using Function = void(WINAPI*)(LPFILETIME);
  // Since Windows 8; the older call has steps of up to 16 ms.
  static const auto precise =
      SystemFunction<Function>(L"kernel32.dll", "GetSystemTimePreciseAsFileTime");
  FILETIME now{};
  if (precise != nullptr) {
    precise(&now);
  } else {
    GetSystemTimeAsFileTime(&now);
  }
  return now;
}

// Makes `timer` fire at a system time. Windows fires it at once if the clock is set past
// `time`.
bool SetTimer(HANDLE timer, FileTime time) {
  LARGE_INTEGER due{};
  due.QuadPart = static_cast<LONGLONG>(time);
  return SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE) != FALSE;
}

// One thread per process polls for clock changes, for all who wait. It starts with the
// first long wait and never ends.
class ClockWatch {
 public:
  // From now on `timer` fires when the clock is set. False when the thread is missing.
  bool Add(HANDLE timer) {
    const std::lock_guard lock(mutex_);
    try {
      if (!thread_.valid()) thread_ = Thread::Start("clock", [this] { return Watch(); });
      if (thread_.valid()) timers_.insert(timer);
    } catch (const std::bad_alloc&) {
      return false;  // a wait goes on without memory
    }
    return thread_.valid();
  }

  void Remove(HANDLE timer) {
    const std::lock_guard lock(mutex_);
    timers_.erase(timer);
  }

 private:
  // System time minus monotonic time.
  static std::int64_t LeadMs() {
    return static_cast<std::int64_t>(ToFileTime(Now()) / kFileTimePerMs) -
           static_cast<std::int64_t>(MonotonicMs());
  }

  std::uint32_t Watch() {
    std::int64_t lead = LeadMs();
    for (;;) {
      SleepMs(kClockStepMs);
      const std::int64_t before = std::exchange(lead, LeadMs());
      if (std::abs(lead - before) < kSmallestChangeMs) continue;
      const std::lock_guard lock(mutex_);
      for (const HANDLE timer : timers_) (void)SetTimer(timer, 1);  // long past
    }
  }

  std::mutex mutex_;
  std::set<HANDLE> timers_;
  Thread thread_;
};

ClockWatch& Watch() {
  // Never destroyed: its thread uses it until the process ends.
  static ClockWatch& watch = *new ClockWatch;
  return watch;
}

// Fires at a system time, and when the clock is set.
class DeadlineTimer {
 public:
  explicit DeadlineTimer(FileTime deadline) : timer_(CreateWaitableTimerW(nullptr, TRUE, nullptr)) {
    if (!timer_.valid()) return;
    watched_ = SetTimer(timer_.get(), deadline) && Watch().Add(timer_.get());
    if (!watched_) timer_.Close();
  }
  ~DeadlineTimer() {
    if (watched_) Watch().Remove(timer_.get());
  }
  DeadlineTimer(const DeadlineTimer&) = delete;
  DeadlineTimer& operator=(const DeadlineTimer&) = delete;

  [[nodiscard]] HANDLE get() const { return timer_.get(); }  // null when there is none

 private:
  KernelHandle timer_;
  bool watched_ = false;
};

class RealClock final : public Clock {
 public:
  FileTime SystemTime() override { return ToFileTime(Now()); }

  FileTime LocalTime() override {
    // With the current UTC offset.
    const FILETIME now = Now();
    FILETIME local{};
    return ToFileTime(FileTimeToLocalFileTime(&now, &local) != FALSE ? local : now);
  }

  void Sleep(std::uint32_t milliseconds) override { SleepMs(milliseconds); }

  void WaitUntil(FileTime deadline, const Waitable& wake) override {
    const FileTime now = SystemTime();
    if (deadline <= now) return;
    const FileTime left = (deadline - now) / kFileTimePerMs + 1;
    WaitList waits;
    waits.Add(wake);
    WaitLimit limit = static_cast<std::uint32_t>(std::min<FileTime>(left, kClockStepMs));
    std::optional<DeadlineTimer> timer;  // a wait of one step needs none
    if (left > kClockStepMs) timer.emplace(std::min(deadline, kNever));
    if (timer && timer->get() != nullptr) {
      waits.Add(timer->get());
      limit = std::nullopt;
    }
    (void)waits.Wait(limit);  // however it ends, the caller reads the clock
  }
};

}  // namespace

Clock& SystemClock() {
  static RealClock clock;
  return clock;
}

}  // namespace talvorn::platform
