// Waiting on handles, in the terms of waitable.h.
#pragma once

#include <cstddef>
#include <span>

#include "platform/waitable.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// What there is to wait on; null when there is nothing.
[[nodiscard]] inline HANDLE NativeHandle(const Waitable& waitable) {
  const std::intptr_t handle = waitable.waitHandle();
  return handle == kNoWaitHandle ? nullptr : reinterpret_cast<HANDLE>(handle);
}

// The longest limit is one millisecond short of what Windows takes for "for ever".
[[nodiscard]] DWORD NativeLimit(WaitLimit limit);

// Waits for one of `handles`, at most MAXIMUM_WAIT_OBJECTS, and tells which it was.
// As the system does it: an auto-reset event is consumed.
[[nodiscard]] WaitStatus WaitForHandles(std::span<const HANDLE> handles, WaitLimit limit,
                                        std::size_t* index = nullptr);

}  // namespace talvorn::platform
