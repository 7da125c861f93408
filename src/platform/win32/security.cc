#include "platform/security.h"

#include <algorithm>
#include <array>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <accctrl.h>
#include <aclapi.h>

namespace talvorn::platform {
namespace {

constexpr std::size_t kMostSubAuthorities = 8;

PSID NativeSid(const SecurityIdentifier* sid) { return const_cast<SecurityIdentifier*>(sid); }

}  // namespace

void SecurityDeleter::operator()(SecurityIdentifier* sid) const { FreeSid(sid); }
void SecurityDeleter::operator()(AccessControlList* acl) const { LocalFree(acl); }
void SecurityDeleter::operator()(SecurityDescriptor* descriptor) const { LocalFree(descriptor); }

SidPointer AllocateSid(std::uint8_t authority,
                       std::initializer_list<std::uint32_t> subAuthorities) {
  if (FaultHits(Fault::kSidAllocate) || subAuthorities.size() == 0 ||
      subAuthorities.size() > kMostSubAuthorities) {
    return nullptr;
  }
  SID_IDENTIFIER_AUTHORITY native = {{0, 0, 0, 0, 0, authority}};
  std::array<DWORD, kMostSubAuthorities> sub{};
  std::ranges::copy(subAuthorities, sub.begin());
  PSID sid = nullptr;
  if (AllocateAndInitializeSid(&native, static_cast<BYTE>(subAuthorities.size()), sub[0], sub[1],
                               sub[2], sub[3], sub[4], sub[5], sub[6], sub[7], &sid) == FALSE) {
    return nullptr;
  }
  return SidPointer(static_cast<SecurityIdentifier*>(sid));
}

AclPointer MakeAcl(std::span<const ExplicitAccess> entries) {
  if (FaultHits(Fault::kAclMake)) return nullptr;
  std::vector<EXPLICIT_ACCESS_W> natives;
  for (const ExplicitAccess& entry : entries) {
    EXPLICIT_ACCESS_W native{};
    native.grfAccessPermissions = entry.accessMask;
    native.grfAccessMode = static_cast<ACCESS_MODE>(entry.mode);
    native.grfInheritance = entry.inheritance;
    native.Trustee.TrusteeType = static_cast<TRUSTEE_TYPE>(entry.trusteeType);
    native.Trustee.TrusteeForm = entry.trustee != nullptr ? TRUSTEE_IS_SID : TRUSTEE_IS_NAME;
    native.Trustee.ptstrName = entry.trustee != nullptr
                                   ? static_cast<LPWSTR>(NativeSid(entry.trustee))
                                   : const_cast<LPWSTR>(L"CURRENT_USER");
    natives.push_back(native);
  }
  PACL acl = nullptr;
  if (SetEntriesInAclW(static_cast<ULONG>(natives.size()), natives.data(), nullptr, &acl) !=
      ERROR_SUCCESS) {
    return nullptr;
  }
  return AclPointer(reinterpret_cast<AccessControlList*>(acl));
}

DescriptorPointer AllocateDescriptor() {
  if (FaultHits(Fault::kDescriptorMake)) return nullptr;
  return DescriptorPointer(
      static_cast<SecurityDescriptor*>(LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH)));
}

bool InitializeDescriptor(SecurityDescriptor& descriptor, std::uint32_t revision) {
  return ::InitializeSecurityDescriptor(&descriptor, revision) != FALSE;
}

bool SetDescriptorDacl(SecurityDescriptor& descriptor, const AccessControlList& acl) {
  auto* const native = reinterpret_cast<PACL>(const_cast<AccessControlList*>(&acl));
  return SetSecurityDescriptorDacl(&descriptor, TRUE, native, FALSE) != FALSE;
}

}  // namespace talvorn::platform
