#include "platform/win32/everyone_access.h"

#include "platform/win32/handle.h"

namespace talvorn::platform {
namespace {

bool AddEntry(ACL& list, PSID account, DWORD rights) {
  return AddAccessAllowedAce(&list, ACL_REVISION, rights, account) != FALSE;
}

bool AddEveryone(ACL& list, DWORD rights) {
  alignas(SID) std::array<std::byte, SECURITY_MAX_SID_SIZE> everyone{};
  DWORD size = SECURITY_MAX_SID_SIZE;
  return CreateWellKnownSid(WinWorldSid, nullptr, everyone.data(), &size) != FALSE &&
         AddEntry(list, everyone.data(), rights);
}

bool AddOwnAccount(ACL& list) {
  KernelHandle token;
  alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user{};
  DWORD size = 0;
  return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive()) != FALSE &&
         GetTokenInformation(token.get(), TokenUser, user.data(), static_cast<DWORD>(user.size()),
                             &size) != FALSE &&
         AddEntry(list, reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid, GENERIC_ALL);
}

}  // namespace

EveryoneAccess::EveryoneAccess(DWORD rights) : made_(Make(rights)) {}

bool EveryoneAccess::Make(DWORD rights) {
  auto& list = *reinterpret_cast<ACL*>(list_.data());
  return InitializeAcl(&list, kListSize, ACL_REVISION) != FALSE && AddEveryone(list, rights) &&
         AddOwnAccount(list) &&
         InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) != FALSE &&
         SetSecurityDescriptorDacl(&descriptor_, TRUE, &list, FALSE) != FALSE;
}

}  // namespace talvorn::platform
