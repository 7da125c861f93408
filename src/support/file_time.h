// Calendar view of file times.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace talvorn {

using platform::Clock;
using platform::FileTime;

// Time of day of a file time, as trace lines show it.
struct TimeOfDay {
  std::uint32_t hour = 0;
  std::uint32_t minute = 0;
  std::uint32_t second = 0;
};

[[nodiscard]] constexpr TimeOfDay ToTimeOfDay(FileTime time) {
  const auto seconds = static_cast<std::uint32_t>(time / platform::kFileTimePerSecond % 86'400);
  return {seconds / 3'600, seconds / 60 % 60, seconds % 60};
}

}  // namespace talvorn
