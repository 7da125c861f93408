#include "service/privileges.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

#include "platform/win32/handle.h"

namespace talvorn::service {
namespace {

using platform::KernelHandle;

// To pass through folders, and to make objects in the global namespace.
constexpr std::array kNeeded = {L"SeChangeNotifyPrivilege", L"SeCreateGlobalPrivilege"};

bool IsNeeded(const LUID& privilege) {
  return std::ranges::any_of(kNeeded, [&](const wchar_t* name) {
    LUID needed{};
    return LookupPrivilegeValueW(nullptr, name, &needed) != FALSE &&
           needed.LowPart == privilege.LowPart && needed.HighPart == privilege.HighPart;
  });
}

}  // namespace

bool GiveAwayPrivileges() {
  KernelHandle token;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES,
                       token.Receive()) == FALSE) {
    return false;
  }
  DWORD size = 0;
  (void)GetTokenInformation(token.get(), TokenPrivileges, nullptr, 0, &size);  // asks for the size
  std::vector<std::byte> buffer(std::max<std::size_t>(size, sizeof(TOKEN_PRIVILEGES)));
  auto* const held = reinterpret_cast<TOKEN_PRIVILEGES*>(buffer.data());
  if (GetTokenInformation(token.get(), TokenPrivileges, held, size, &size) == FALSE) return false;
  for (DWORD i = 0; i < held->PrivilegeCount; ++i) {
    LUID_AND_ATTRIBUTES& one = held->Privileges[i];
    if (!IsNeeded(one.Luid)) one.Attributes = SE_PRIVILEGE_REMOVED;
  }
  return AdjustTokenPrivileges(token.get(), FALSE, held, 0, nullptr, nullptr) != FALSE &&
         GetLastError() == ERROR_SUCCESS;
}

}  // namespace talvorn::service
