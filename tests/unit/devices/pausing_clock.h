// A clock whose sleepers go on at once, after `whilePaused` has run on another thread.
#pragma once

#include <functional>
#include <thread>

#include "testing/fake_clock.h"

namespace talvorn::testing {

class PausingClock : public FakeClock {
 public:
  void Sleep(std::uint32_t /*milliseconds*/) override {
    if (whilePaused) std::thread(whilePaused).join();
  }
  std::function<void()> whilePaused;
};

}  // namespace talvorn::testing
