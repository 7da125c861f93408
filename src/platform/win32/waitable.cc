#include "platform/waitable.h"

#include <algorithm>
#include <array>

#include "platform/win32/wait.h"

namespace talvorn::platform {

DWORD NativeLimit(WaitLimit limit) {
  return limit ? std::min<DWORD>(*limit, INFINITE - 1) : INFINITE;
}

WaitStatus WaitForHandles(std::span<const HANDLE> handles, WaitLimit limit, std::size_t* index) {
  if (handles.size() > MAXIMUM_WAIT_OBJECTS) return WaitStatus::kFailed;
  if (handles.empty()) {
    Sleep(NativeLimit(limit));
    return WaitStatus::kTimeout;
  }
  const auto count = static_cast<DWORD>(handles.size());
  const DWORD result = WaitForMultipleObjects(count, handles.data(), FALSE, NativeLimit(limit));
  if (result == WAIT_TIMEOUT) return WaitStatus::kTimeout;
  if (result >= WAIT_OBJECT_0 + count) return WaitStatus::kFailed;
  if (index != nullptr) *index = result - WAIT_OBJECT_0;
  return WaitStatus::kSignalled;
}

// Nothing that a Waitable hands out is consumed by a wait: see event.cc.
WaitStatus WaitForAny(std::span<const Waitable* const> waitables, WaitLimit limit) {
  static_assert(kMostWaitables == MAXIMUM_WAIT_OBJECTS);
  std::array<HANDLE, kMostWaitables> handles{};
  std::size_t count = 0;
  for (const Waitable* waitable : waitables) {
    if (waitable == nullptr) continue;
    const HANDLE handle = NativeHandle(*waitable);
    if (handle == nullptr) {
      limit = LimitToPoll(limit);
    } else if (count == handles.size()) {
      return WaitStatus::kFailed;
    } else {
      handles[count++] = handle;
    }
  }
  return WaitForHandles(std::span(handles).first(count), limit);
}

}  // namespace talvorn::platform
