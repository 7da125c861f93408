// Periodic auto-reset event with a thread of its own. The owner waits on `event` or
// tests it, and may restart the period at any time. It follows the wall clock: when
// that is set back, or forward by more than a period, the timer fires at once.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/event.h"
#include "platform/thread.h"
#include "support/file_time.h"
#include "support/run_flag.h"

namespace talvorn {

class CIntervalTimer {
 public:
  explicit CIntervalTimer(Clock& clock = platform::SystemClock()) : clock_(clock) {}
  ~CIntervalTimer() { Stop(); }
  CIntervalTimer(const CIntervalTimer&) = delete;
  CIntervalTimer& operator=(const CIntervalTimer&) = delete;

  platform::Event event;        // set once per period; none until Start
  std::uint32_t ownsEvent = 0;  // 1 when Start made the event
  RunFlag running;
  platform::Thread thread;
  std::uint64_t now = 0;     // clock as last read, ms since 1601 (UTC)
  std::uint64_t last = 0;    // last firing or restart, ms
  std::uint64_t period = 0;  // ms; 0 never fires. Set before Start.

  // The first firing comes no earlier than one second after Start.
  void Start();
  // The next firing is one full period away.
  void Restart();
  // Returns when the thread has ended, which may take its first second.
  void Stop();

  // Milliseconds since the last firing or restart, with a fresh reading of `now`;
  // 0 for a timer that never fires.
  [[nodiscard]] std::uint64_t Elapsed();

 private:
  std::uint32_t ThreadTimer();
  // Fires when the period is over; returns the time to look again.
  FileTime Check();
  void ReadClock();  // with the lock held

  Clock& clock_;
  std::mutex lock_;      // guards now, last and pausing_
  bool pausing_ = true;  // `now` stands still while the thread pauses at its start
};

}  // namespace talvorn
