#include "support/interval_timer.h"
#include "support/thread.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kStartPauseMs = 1'000;
constexpr platform::FileTime kNever = ~platform::FileTime{0};

}  // namespace

void CIntervalTimer::Start() {
  if (!event.valid()) {
    event = platform::Event::Create(platform::Event::Mode::kAutoReset);
    ownsEvent = event.valid() ? 1 : 0;
  }
  running.Set();
  thread = StartThread("timer", [this] { return ThreadTimer(); });
}

void CIntervalTimer::Restart() {
  const std::lock_guard guard(lock_);
  ReadClock();
  last = now;
  if (event.valid()) event.Reset();
}

void CIntervalTimer::Stop() {
  running.Clear();
  thread.Join();
  if (ownsEvent != 0) {
    event = platform::Event();
    ownsEvent = 0;
  }
}

std::uint64_t CIntervalTimer::Elapsed() {
  const std::lock_guard guard(lock_);
  ReadClock();
  return period == 0 ? 0 : now - last;
}

void CIntervalTimer::ReadClock() {
  if (!pausing_) now = clock_.SystemTime() / platform::kFileTimePerMs;
}

FileTime CIntervalTimer::Check() {
  const std::lock_guard guard(lock_);
  pausing_ = false;
  ReadClock();
  if (now - last >= period) {
    if (period != 0 && event.valid()) event.Set();
    last = now;
  }
  return period == 0 ? kNever : (last + period) * platform::kFileTimePerMs;
}

std::uint32_t CIntervalTimer::ThreadTimer() {
  {
    const std::lock_guard guard(lock_);
    pausing_ = true;
    now = last = clock_.SystemTime() / platform::kFileTimePerMs;
  }
  clock_.Sleep(kStartPauseMs);
  while (running) clock_.WaitUntil(Check(), running.cleared());
  return 0;
}

}  // namespace talvorn
