// A clock that stands still until the test moves it.
#pragma once

#include <atomic>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/waitable.h"

namespace talvorn::testing {

class FakeClock : public platform::Clock {
 public:
  // 2026-11-17 15:00:00 UTC; the local time is one hour ahead.
  static constexpr platform::FileTime kStart = 134'394'012'000'000'000;
  static constexpr platform::FileTime kZone = 3'600 * platform::kFileTimePerSecond;

  platform::FileTime SystemTime() override { return now_.load(); }
  platform::FileTime LocalTime() override { return now_.load() + kZone; }

  void Sleep(std::uint32_t milliseconds) override {
    const platform::FileTime end = now_.load() + milliseconds * platform::kFileTimePerMs;
    ++sleepers_;
    while (now_.load() < end) platform::SleepMs(1);
    --sleepers_;
  }
  void WaitUntil(platform::FileTime deadline, const platform::Waitable& wake) override {
    const platform::FileTime start = now_.load();
    const platform::Waitable* const waitables[] = {&wake};
    while (now_.load() < deadline && now_.load() >= start) {
      if (platform::WaitForAny(waitables, 1) == platform::WaitStatus::kSignalled) return;
    }
  }

  void Advance(std::uint64_t milliseconds) { now_ += milliseconds * platform::kFileTimePerMs; }
  void SetBack(std::uint64_t milliseconds) { now_ -= milliseconds * platform::kFileTimePerMs; }
  // Threads that are inside Sleep.
  [[nodiscard]] int sleepers() const { return sleepers_; }

 private:
  std::atomic<platform::FileTime> now_{kStart};
  std::atomic<int> sleepers_{0};
};

}  // namespace talvorn::testing
