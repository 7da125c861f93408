// Security attributes for a new object: everyone has the given rights, the account that
// makes it has all. Must live until the object is made.
#pragma once

#include "platform/security.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

class EveryoneAccess {
 public:
  explicit EveryoneAccess(DWORD rights);
  EveryoneAccess(const EveryoneAccess&) = delete;
  EveryoneAccess& operator=(const EveryoneAccess&) = delete;

  // Null, the system's default, when making them failed.
  [[nodiscard]] SECURITY_ATTRIBUTES* attributes() { return made_ ? &attributes_ : nullptr; }

 private:
  SidPointer everyone_;
  AclPointer list_;
  DescriptorPointer descriptor_;
  SECURITY_ATTRIBUTES attributes_{};
  bool made_ = false;
};

}  // namespace talvorn::platform
