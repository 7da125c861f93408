// The 32-bit run flag of a long-running thread. The owner sets and clears it, the
// thread reads it after every pass; clearing it also wakes the thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/event.h"

namespace talvorn {

class RunFlag {
 public:
  RunFlag() : wake_(platform::Event::Create(platform::Event::Mode::kManualReset)) {}

  // Made before the thread starts; the wake event is no longer set then.
  void Set() {
    wake_.Reset();
    value_.store(1);
  }
  void Clear() {
    value_.store(0);
    wake_.Set();
  }
  explicit operator bool() const { return value_.load() != 0; }

  // Signalled once the flag has been cleared.
  [[nodiscard]] const platform::Waitable& cleared() const { return wake_; }

 private:
  std::atomic<std::uint32_t> value_{0};
  platform::Event wake_;
};

}  // namespace talvorn
