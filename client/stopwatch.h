// How long something took, whatever the clock on the wall does meanwhile.
#pragma once

#include <chrono>
#include <cstdint>

namespace talvorn {

class Stopwatch {
 public:
  // Since it was made.
  [[nodiscard]] std::uint64_t microseconds() const {
    using namespace std::chrono;
    return static_cast<std::uint64_t>(
        floor<std::chrono::microseconds>(Clock::now() - start_).count());
  }

 private:
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start_ = Clock::now();
};

}  // namespace talvorn
