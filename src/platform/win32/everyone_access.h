// Security attributes of an object that every account of the machine may use: everyone has
// the rights named, the account that makes the object has all. Lives while it is made.
#pragma once

#include "platform/security.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

class EveryoneAccess {
 public:
  explicit EveryoneAccess(DWORD rights);
  EveryoneAccess(const EveryoneAccess&) = delete;
  EveryoneAccess& operator=(const EveryoneAccess&) = delete;

  // Null, which means the system's default, when a step of making them failed.
  [[nodiscard]] SECURITY_ATTRIBUTES* attributes() { return made_ ? &attributes_ : nullptr; }

 private:
  SidPointer everyone_;
  AclPointer list_;
  DescriptorPointer descriptor_;
  SECURITY_ATTRIBUTES attributes_{};
  bool made_ = false;
};

}  // namespace talvorn::platform
