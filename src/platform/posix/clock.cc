#include "platform/clock.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>

#include "platform/posix/descriptor.h"
#include "platform/posix/wait.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

// Longest sleep when the system gives no timer that notices a change of the clock.
constexpr std::uint32_t kBlindWaitMs = 1000;

// A time (2223) that every deadline past it counts as: the kernel's own times end
// soon after.
constexpr std::uint64_t kLastUnixSecond = 8'000'000'000;

struct UnixTime {
  std::int64_t seconds;
  std::uint32_t ticks;  // 100-nanosecond units within the second
};

UnixTime Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<std::uint32_t>(now.tv_nsec / 100)};
}

FileTime ToFileTime(const UnixTime& time) {
  return (static_cast<std::uint64_t>(time.seconds) + kSecondsFrom1601To1970) * kFileTimePerSecond +
         time.ticks;
}

// East of Greenwich is positive. Offsets change on quarters of an hour only, so
// one reading of the zone serves its quarter; a zone that the administrator
// changes counts from the next quarter on.
std::int32_t ZoneOffsetSeconds(std::int64_t unixSeconds) {
  // The quarter in the upper half, the offset in the lower one.
  static std::atomic<std::uint64_t> cached{~std::uint64_t{0}};
  const auto quarter = static_cast<std::uint32_t>(unixSeconds / 900);
  const std::uint64_t known = cached.load(std::memory_order_relaxed);
  if (static_cast<std::uint32_t>(known >> 32) == quarter) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(known));
  }
  // Nobody promises that several threads may read the zone at once.
  static std::mutex zoneLock;
  const std::lock_guard guard(zoneLock);
  tzset();  // unlike localtime_r, reads a zone file that has changed
  const time_t time = unixSeconds;
  tm local{};
  if (localtime_r(&time, &local) == nullptr) return 0;
  const auto offset = static_cast<std::int32_t>(local.tm_gmtoff);
  cached.store(std::uint64_t{quarter} << 32 | static_cast<std::uint32_t>(offset),
               std::memory_order_relaxed);
  return offset;
}

// Readable at `deadline`, and as soon as somebody sets the clock. None when the
// system has none to give.
Descriptor MakeDeadlineTimer(FileTime deadline) {
  const std::uint64_t seconds = deadline / kFileTimePerSecond;
  itimerspec setting{};
  if (seconds <= kSecondsFrom1601To1970) {
    setting.it_value.tv_nsec = 1;  // long past; zero would mean never
  } else if (seconds - kSecondsFrom1601To1970 > kLastUnixSecond) {
    setting.it_value.tv_sec = kLastUnixSecond;
  } else {
    setting.it_value.tv_sec = static_cast<time_t>(seconds - kSecondsFrom1601To1970);
    setting.it_value.tv_nsec = static_cast<long>(deadline % kFileTimePerSecond) * 100;
  }
  Descriptor timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (timer.valid() && timerfd_settime(timer.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET,
                                       &setting, nullptr) != 0) {
    timer.Close();
  }
  return timer;
}

class RealClock final : public Clock {
 public:
  FileTime SystemTime() override { return ToFileTime(Now()); }

  FileTime LocalTime() override {
    UnixTime now = Now();
    now.seconds += ZoneOffsetSeconds(now.seconds);
    return ToFileTime(now);
  }

  void Sleep(std::uint32_t milliseconds) override { SleepMs(milliseconds); }

  void WaitUntil(FileTime deadline, const Waitable& wake) override {
    const FileTime now = SystemTime();
    if (deadline <= now) return;

    std::array<pollfd, 2> descriptors{};
    std::size_t count = 0;
    WaitLimit limit;
    const Descriptor timer = MakeDeadlineTimer(deadline);
    if (timer.valid()) {
      descriptors[count++] = {timer.get(), POLLIN, 0};
    } else {
      const std::uint64_t milliseconds = (deadline - now) / kFileTimePerMs + 1;
      limit = static_cast<std::uint32_t>(std::min<std::uint64_t>(milliseconds, kBlindWaitMs));
    }
    if (wake.waitHandle() != kNoWaitHandle) {
      descriptors[count++] = {static_cast<int>(wake.waitHandle()), POLLIN, 0};
    } else {
      limit = LimitToPoll(limit);
    }
    (void)PollDescriptors(std::span(descriptors).first(count), limit);
  }
};

}  // namespace

Clock& SystemClock() {
  static RealClock clock;
  return clock;
}

}  // namespace talvorn::platform
