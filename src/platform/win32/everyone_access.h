// Security attributes of an object that every account of the machine may use: everyone has
// the rights named, the account that makes the object has all. Lives while it is made.
#pragma once

#include <array>
#include <cstddef>

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
  [[nodiscard]] bool Make(DWORD rights);

  static constexpr std::size_t kListSize =
      sizeof(ACL) + 2 * (sizeof(ACCESS_ALLOWED_ACE) + SECURITY_MAX_SID_SIZE);

  alignas(ACL) std::array<std::byte, kListSize> list_{};
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{sizeof(SECURITY_ATTRIBUTES), &descriptor_, FALSE};
  bool made_ = false;
};

}  // namespace talvorn::platform
