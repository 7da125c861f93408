#include "platform/waitable.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "platform/clock.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

// What poll() says about a descriptor that nobody can wait on.
constexpr short kBroken = POLLNVAL;

}  // namespace

int PollDescriptors(std::span<pollfd> descriptors, WaitLimit limit) {
  const std::uint64_t deadline = limit ? MonotonicMs() + *limit : 0;
  for (std::uint64_t left = limit.value_or(0);;) {
    const timespec time{static_cast<time_t>(left / 1000),
                        static_cast<long>(left % 1000) * 1'000'000};
    const int ready =
        ppoll(descriptors.data(), descriptors.size(), limit ? &time : nullptr, nullptr);
    if (ready >= 0 || errno != EINTR) return ready;
    const std::uint64_t now = limit ? MonotonicMs() : 0;
    left = deadline - std::min(now, deadline);
  }
}

WaitStatus WaitForDescriptor(int fd, short events, WaitLimit limit) {
  pollfd descriptor{fd, events, 0};
  const int ready = PollDescriptors({&descriptor, 1}, limit);
  if (ready < 0 || (descriptor.revents & kBroken) != 0) return WaitStatus::kFailed;
  return ready == 0 ? WaitStatus::kTimeout : WaitStatus::kSignalled;
}

WaitStatus WaitForAny(std::span<const Waitable* const> waitables, WaitLimit limit) {
  std::array<pollfd, kMostWaitables> descriptors;
  std::size_t count = 0;
  for (const Waitable* waitable : waitables) {
    if (waitable == nullptr) continue;
    const std::intptr_t handle = waitable->waitHandle();
    if (handle == kNoWaitHandle) {
      limit = LimitToPoll(limit);
    } else if (count == descriptors.size()) {
      return WaitStatus::kFailed;
    } else {
      descriptors[count++] = {static_cast<int>(handle), POLLIN, 0};
    }
  }

  const std::span<pollfd> used = std::span(descriptors).first(count);
  const int ready = PollDescriptors(used, limit);
  if (ready == 0) return WaitStatus::kTimeout;
  const bool broken =
      std::ranges::any_of(used, [](const pollfd& d) { return (d.revents & kBroken) != 0; });
  return ready < 0 || broken ? WaitStatus::kFailed : WaitStatus::kSignalled;
}

}  // namespace talvorn::platform
