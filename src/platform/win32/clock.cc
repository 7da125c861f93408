#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include "platform/thread.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wait.h"

namespace talvorn::platform {
namespace {

// How late a change of the clock may be noticed: its owner tells windows of it and
// services, but no other process, so somebody has to look.
constexpr std::uint32_t kClockStepMs = 1000;

// A change of the clock by less, either way, passes for a delay between two readings.
constexpr std::int64_t kSmallestChangeMs = 250;

// Deadlines from here on (the year 9999 and later) are never reached.
constexpr FileTime kNever = 2'650'467'743'999'999'999;

FileTime ToFileTime(const FILETIME& time) {
  return FileTime{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

FILETIME Now() {
  using Function = void(WINAPI*)(LPFILETIME);
  // Since Windows 8; before, the time goes on in steps of up to 16 milliseconds.
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

// Makes `timer` fire at a system time; the system moves it when the clock is set
// forward, and past `time` at once.
bool SetTimer(HANDLE timer, FileTime time) {
  LARGE_INTEGER due{};
  due.QuadPart = static_cast<LONGLONG>(time);
  return SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE) != FALSE;
}

// The one thread of the process that looks for changes of the clock, once a second
// for all who wait. It starts with the first long wait and lives as long as the
// process.
class ClockWatch {
 public:
  // From now on `timer` fires when the clock is set. False when nobody can look.
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
  // The wall clock's lead over one that nobody sets.
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
  // Never destroyed: its thread runs to the end of the process.
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
    // With the offset that holds now, which is the one that is wanted.
    const FILETIME now = Now();
    FILETIME local{};
    return ToFileTime(FileTimeToLocalFileTime(&now, &local) != FALSE ? local : now);
  }

  void Sleep(std::uint32_t milliseconds) override { SleepMs(milliseconds); }

  void WaitUntil(FileTime deadline, const Waitable& wake) override {
    const FileTime now = SystemTime();
    if (deadline <= now) return;
    const FileTime left = (deadline - now) / kFileTimePerMs + 1;
    // A wait of one step needs no timer: whatever happens to the clock, it is short.
    if (left <= kClockStepMs) return Wait(nullptr, wake, static_cast<std::uint32_t>(left));
    const DeadlineTimer timer(std::min(deadline, kNever));
    return Wait(timer.get(), wake, timer.get() == nullptr ? WaitLimit(kClockStepMs) : std::nullopt);
  }

 private:
  static void Wait(HANDLE timer, const Waitable& wake, WaitLimit limit) {
    std::array<HANDLE, 2> handles{};
    std::size_t count = 0;
    if (timer != nullptr) handles[count++] = timer;
    if (const HANDLE handle = NativeHandle(wake); handle != nullptr) {
      handles[count++] = handle;
    } else {
      limit = LimitToPoll(limit);
    }
    // Whatever ends the wait, the caller looks at the clock.
    (void)WaitForHandles(std::span(handles).first(count), limit);
  }
};

}  // namespace

Clock& SystemClock() {
  static RealClock clock;
  return clock;
}

}  // namespace talvorn::platform
