#include "platform/clock.h"

#include <errno.h>
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

constexpr FileTime k1970 = kSecondsFrom1601To1970 * kFileTimePerSecond;
// Since then: later deadlines count as this one (2223). The kernel's own times end soon
// after.
constexpr FileTime kLastTime = 8'000'000'000 * kFileTimePerSecond;

FileTime Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return k1970 + static_cast<FileTime>(now.tv_sec) * kFileTimePerSecond +
         static_cast<FileTime>(now.tv_nsec / 100);
}

// In seconds, positive east of Greenwich. Offsets change on quarters of an hour only, so the zone
// is read once for each; a zone that is changed counts from the next quarter on.
std::int64_t ZoneOffset(FileTime unixSeconds) {
  // The quarter in the upper half, the offset in the lower one.
  static std::atomic<std::uint64_t> cached{~std::uint64_t{0}};
  const auto quarter = static_cast<std::uint32_t>(unixSeconds / 900);
  const std::uint64_t known = cached.load(std::memory_order_relaxed);
  if (known >> 32 == quarter) return static_cast<std::int32_t>(known & 0xFFFFFFFF);
  // Nobody promises that several threads may read the zone at once.
  static std::mutex zoneLock;
  const std::lock_guard guard(zoneLock);
  tzset();  // unlike localtime_r, reads a zone file that has changed
  const auto time = static_cast<time_t>(unixSeconds);
  tm local{};
  if (localtime_r(&time, &local) == nullptr) return 0;
  cached.store(std::uint64_t{quarter} << 32 | static_cast<std::uint32_t>(local.tm_gmtoff),
               std::memory_order_relaxed);
  return local.tm_gmtoff;
}

// Makes `timer` readable at `deadline`, and as soon as somebody sets the clock. False,
// with ECANCELED when that has just happened, if it cannot.
bool Arm(int timer, FileTime deadline) {
  // A time of 0 would mean never.
  const FileTime time = std::clamp(deadline, k1970 + 1, k1970 + kLastTime) - k1970;
  itimerspec setting{};
  setting.it_value = {static_cast<time_t>(time / kFileTimePerSecond),
                      static_cast<long>(time % kFileTimePerSecond) * 100};
  return timerfd_settime(timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &setting, nullptr) ==
         0;
}

class RealClock final : public Clock {
 public:
  FileTime SystemTime() override { return Now(); }

  FileTime LocalTime() override {
    const FileTime now = Now();
    return now + kFileTimePerSecond *
                     static_cast<FileTime>(ZoneOffset((now - k1970) / kFileTimePerSecond));
  }

  void Sleep(std::uint32_t milliseconds) override { SleepMs(milliseconds); }

  void WaitUntil(FileTime deadline, const Waitable& wake) override {
    const FileTime now = SystemTime();
    if (deadline <= now) return;
    thread_local const Descriptor timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    WaitLimit limit;
    if (!Arm(timer.get(), deadline)) {
      if (errno == ECANCELED) return;
      limit = static_cast<std::uint32_t>(
          std::min<FileTime>((deadline - now) / kFileTimePerMs + 1, kBlindWaitMs));
    }
    const auto other = static_cast<int>(wake.waitHandle());
    if (other < 0) limit = LimitToPoll(limit);
    std::array<pollfd, 2> descriptors = {pollfd{timer.get(), POLLIN, 0}, pollfd{other, POLLIN, 0}};
    (void)PollDescriptors(descriptors, limit);
  }
};

}  // namespace

Clock& SystemClock() {
  static RealClock clock;
  return clock;
}

}  // namespace talvorn::platform
