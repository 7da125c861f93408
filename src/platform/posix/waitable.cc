#include "platform/waitable.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

// What poll() says about a descriptor that nobody can wait on.
constexpr short kBroken = POLLNVAL;

std::int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

timespec ToTimespec(std::int64_t ns) { return {ns / kNsPerSecond, ns % kNsPerSecond}; }

}  // namespace

int PollDescriptors(std::span<pollfd> descriptors, WaitLimit limit) {
  const bool timed = limit.has_value() && *limit > 0;
  const std::int64_t deadline = timed ? MonotonicNs() + *limit * kNsPerMs : 0;
  timespec left = timed ? ToTimespec(*limit * kNsPerMs) : timespec{};
  for (;;) {
    const int ready =
        ppoll(descriptors.data(), descriptors.size(), limit ? &left : nullptr, nullptr);
    if (ready >= 0 || errno != EINTR) return ready;
    if (timed) left = ToTimespec(std::max<std::int64_t>(deadline - MonotonicNs(), 0));
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
