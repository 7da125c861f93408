#include "platform/waitable.h"

#include <algorithm>

#include "platform/win32/wait.h"

namespace talvorn::platform {

DWORD NativeLimit(WaitLimit limit) {
  return limit ? std::min<DWORD>(*limit, INFINITE - 1) : INFINITE;
}

void WaitList::Add(HANDLE handle) {
  if (count_ < handles_.size()) handles_[count_] = handle;
  ++count_;
}

void WaitList::Add(const Waitable& waitable) {
  const std::intptr_t handle = waitable.waitHandle();
  if (handle == kNoWaitHandle) {
    poll_ = true;
  } else {
    Add(reinterpret_cast<HANDLE>(handle));
  }
}

WaitStatus WaitList::Wait(WaitLimit limit, DWORD* index) const {
  if (count_ > handles_.size()) return WaitStatus::kFailed;
  const DWORD native = NativeLimit(poll_ ? LimitToPoll(limit) : limit);
  if (count_ == 0) {
    Sleep(native);
    return WaitStatus::kTimeout;
  }
  const DWORD result = WaitForMultipleObjects(count_, handles_.data(), FALSE, native);
  if (result == WAIT_TIMEOUT) return WaitStatus::kTimeout;
  if (result >= WAIT_OBJECT_0 + count_) return WaitStatus::kFailed;
  if (index != nullptr) *index = result - WAIT_OBJECT_0;
  return WaitStatus::kSignalled;
}

// Resets nothing: the events of Waitables are manual-reset ones, see event.cc.
WaitStatus WaitForAny(std::span<const Waitable* const> waitables, WaitLimit limit) {
  static_assert(kMostWaitables == MAXIMUM_WAIT_OBJECTS);
  WaitList waits;
  for (const Waitable* waitable : waitables) {
    if (waitable != nullptr) waits.Add(*waitable);
  }
  return waits.Wait(limit);
}

}  // namespace talvorn::platform
