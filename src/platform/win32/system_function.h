// Functions that later versions of Windows have and the oldest supported one lacks.
#pragma once

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// The function `name` of a system library that every process has loaded; null where
// this version of Windows has none.
template <typename Function>
[[nodiscard]] Function SystemFunction(const wchar_t* library, const char* name) {
  const HMODULE module = GetModuleHandleW(library);
  if (module == nullptr) return nullptr;
  // The system knows one type of function only.
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace talvorn::platform
