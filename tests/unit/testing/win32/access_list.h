// The access list of an object of the system, read back from a handle.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <aclapi.h>
#include <sddl.h>

namespace talvorn::testing {

// Who may, as the text of an account, and what.
using AccessEntry = std::pair<std::string, DWORD>;

// All must allow, and none be inherited. Empty when the object has no list.
inline std::vector<AccessEntry> AccessList(HANDLE object) {
  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_EQ(GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                            &acl, nullptr, &descriptor),
            DWORD{ERROR_SUCCESS});
  std::vector<AccessEntry> entries;
  for (DWORD i = 0; acl != nullptr && i < acl->AceCount; ++i) {
    void* entry = nullptr;
    char* account = nullptr;
    EXPECT_NE(GetAce(acl, i, &entry), FALSE);
    auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(allowed.Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    EXPECT_EQ(allowed.Header.AceFlags, 0);
    EXPECT_NE(ConvertSidToStringSidA(&allowed.SidStart, &account), FALSE);
    entries.emplace_back(account, allowed.Mask);
    LocalFree(account);
  }
  LocalFree(descriptor);
  return entries;
}

// The reader's handle of a mailslot, which nobody hands out: the one of this process that
// tells of one.
inline HANDLE OnlyMailslot() {
  for (std::uintptr_t value = 4; value < 0x4000; value += 4) {
    const auto handle = reinterpret_cast<HANDLE>(value);
    DWORD count = 0;
    if (GetMailslotInfo(handle, nullptr, nullptr, &count, nullptr) != FALSE) return handle;
  }
  return nullptr;
}

}  // namespace talvorn::testing
