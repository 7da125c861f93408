// What a thread can block on: a descriptor for poll() on Linux, a handle for
// WaitForMultipleObjects() on Windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace talvorn::platform {

inline constexpr std::intptr_t kNoWaitHandle = -1;

class Waitable {
 public:
  // Descriptor or handle to wait on, kNoWaitHandle when there is none.
  [[nodiscard]] virtual std::intptr_t waitHandle() const = 0;

 protected:
  Waitable() = default;
  ~Waitable() = default;
  Waitable(const Waitable&) = default;
  Waitable& operator=(const Waitable&) = default;
  Waitable(Waitable&&) = default;
  Waitable& operator=(Waitable&&) = default;
};

enum class WaitStatus { kSignalled, kTimeout, kFailed };

// Milliseconds; none means for ever.
using WaitLimit = std::optional<std::uint32_t>;

// Longest wait when one of the things waited for has no handle (it could not be
// made for lack of descriptors): its owner then polls, as slowly as it may.
inline constexpr std::uint32_t kPollTickMs = 10;
[[nodiscard]] constexpr WaitLimit LimitToPoll(WaitLimit limit) {
  return limit && *limit < kPollTickMs ? limit : kPollTickMs;
}

// Blocks until one of `waitables` is signalled or `limit` has passed; resets none. Null entries
// are passed over; one without a handle shortens the wait to kPollTickMs. Fails for more than
// kMostWaitables. Only one thread may wait for an event.
inline constexpr std::size_t kMostWaitables = 64;  // Windows knows no more
[[nodiscard]] WaitStatus WaitForAny(std::span<const Waitable* const> waitables, WaitLimit limit);

}  // namespace talvorn::platform
