// The security types as what they are on Windows. Nothing of them is ever made here:
// the pointers are those of the system's own blocks.
#pragma once

#include "platform/security.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

[[nodiscard]] inline PSECURITY_DESCRIPTOR NativeDescriptor(const SecurityDescriptor* descriptor) {
  return const_cast<SecurityDescriptor*>(descriptor);  // calls that only read it take it so
}

}  // namespace talvorn::platform
