// Waiting on descriptors with a time limit that interruptions do not lengthen.
#pragma once

#include <poll.h>

#include <span>

#include "platform/waitable.h"

namespace talvorn::platform {

// poll() until a descriptor is ready or `limit` has passed. Returns what poll()
// does, but never -1 with EINTR.
int PollDescriptors(std::span<pollfd> descriptors, WaitLimit limit);

// Waits for `events` on one descriptor.
[[nodiscard]] WaitStatus WaitForDescriptor(int fd, short events, WaitLimit limit);

}  // namespace talvorn::platform
