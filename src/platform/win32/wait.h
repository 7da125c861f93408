// Waiting on handles, in the terms of waitable.h.
#pragma once

#include <array>

#include "platform/waitable.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// A limit as Windows takes it, one millisecond short of "for ever" at most.
[[nodiscard]] DWORD NativeLimit(WaitLimit limit);

// The handles of one wait.
class WaitList {
 public:
  WaitList() = default;
  explicit WaitList(HANDLE only) { Add(only); }

  void Add(HANDLE handle);
  // Without a handle it shortens the wait to kPollTickMs.
  void Add(const Waitable& waitable);

  // Waits for one of the handles; `index` tells for which, the first one if several are
  // signalled. Resets an auto-reset event. Fails for more than MAXIMUM_WAIT_OBJECTS.
  [[nodiscard]] WaitStatus Wait(WaitLimit limit, DWORD* index = nullptr) const;

 private:
  std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles_;
  DWORD count_ = 0;  // of those added, also past the room
  bool poll_ = false;
};

}  // namespace talvorn::platform
