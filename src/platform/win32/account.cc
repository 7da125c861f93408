#include "platform/account.h"

#include <array>
#include <vector>

#include "platform/text_encoding.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <accctrl.h>
#include <aclapi.h>

namespace talvorn::platform {
namespace {

using LocalMemory = Handle<PSECURITY_DESCRIPTOR, LocalFree>;

// "DOMAIN\name"; empty when the account is not known any more.
std::string NameOf(PSID account) {
  std::array<wchar_t, 256> name{};
  std::array<wchar_t, 256> domain{};
  DWORD nameSize = name.size();
  DWORD domainSize = domain.size();
  SID_NAME_USE use{};
  if (LookupAccountSidW(nullptr, account, name.data(), &nameSize, domain.data(), &domainSize,
                        &use) == FALSE)
    return {};
  const std::string plain = WideToUtf8(FromNative(name.data(), nameSize));
  return domainSize == 0 ? plain : WideToUtf8(FromNative(domain.data(), domainSize)) + '\\' + plain;
}

std::string OwnAccount() {
  KernelHandle token;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive()) == FALSE) return {};
  DWORD size = 0;
  (void)GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  if (size < sizeof(TOKEN_USER) ||
      GetTokenInformation(token.get(), TokenUser, buffer.data(), size, &size) == FALSE)
    return {};
  return NameOf(reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid);
}

}  // namespace

std::string AccountText() {
  std::string text = OwnAccount();
  if (DWORD session = 0; ProcessIdToSessionId(GetCurrentProcessId(), &session) != FALSE)
    text.append(text.empty() ? "session " : ", session ").append(std::to_string(session));
  return text;
}

std::string MailslotOwnerText(std::u16string_view name) {
  const FileHandle file(CreateFileW(ToNative(std::u16string(name)), READ_CONTROL,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr));
  PSID owner = nullptr;
  LocalMemory descriptor;
  if (!file.valid() ||
      GetSecurityInfo(file.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                      nullptr, nullptr, descriptor.Receive()) != ERROR_SUCCESS)
    return {};
  return owner == nullptr ? std::string() : NameOf(owner);
}

std::string MachineName() {
  std::array<wchar_t, MAX_COMPUTERNAME_LENGTH + 1> name{};
  DWORD size = name.size();
  return GetComputerNameW(name.data(), &size) == FALSE ? std::string()
                                                       : WideToUtf8(FromNative(name.data(), size));
}

// What the system says of itself; GetVersion() says what a program was made for.
std::string SystemText() {
  using Get = NTSTATUS(NTAPI*)(OSVERSIONINFOW*);
  const auto get = SystemFunction<Get>(L"ntdll.dll", "RtlGetVersion");
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  if (get == nullptr || get(&version) < 0) return "Windows";
  return std::string("Windows ")
      .append(std::to_string(version.dwMajorVersion))
      .append(".")
      .append(std::to_string(version.dwMinorVersion))
      .append(".")
      .append(std::to_string(version.dwBuildNumber));
}

}  // namespace talvorn::platform
