// The system's clock, but for sleeps, which take no time.
#pragma once

#include "platform/clock.h"

namespace talvorn::testing {

class InstantClock : public platform::Clock {
 public:
  platform::FileTime SystemTime() override { return platform::SystemClock().SystemTime(); }
  platform::FileTime LocalTime() override { return platform::SystemClock().LocalTime(); }
  void Sleep(std::uint32_t /*milliseconds*/) override {}
  void WaitUntil(platform::FileTime /*deadline*/, const platform::Waitable& /*wake*/) override {}
};

}  // namespace talvorn::testing
