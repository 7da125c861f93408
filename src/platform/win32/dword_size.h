// Sizes as the Windows calls take them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// What is larger than a call can be told counts as the largest it can.
[[nodiscard]] constexpr DWORD DwordSize(std::size_t size) {
  return static_cast<DWORD>(std::min<std::size_t>(size, std::numeric_limits<DWORD>::max()));
}

}  // namespace talvorn::platform
