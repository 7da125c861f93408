#include <gtest/gtest.h>

#include "exchange/object_security.h"
#include "messages/messages.h"
#include "platform/mailslot.h"
#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <aclapi.h>
#include <sddl.h>

namespace talvorn {
namespace {

std::string SidText(const void* entry) {
  const auto* const allowed = static_cast<const ACCESS_ALLOWED_ACE*>(entry);
  char* text = nullptr;
  const PSID sid = const_cast<DWORD*>(&allowed->SidStart);  // only read
  if (ConvertSidToStringSidA(sid, &text) == FALSE) return "no identifier";
  std::string copy(text);
  LocalFree(text);
  return copy;
}

// The reader's handle, which nobody hands out: the one of this process that tells of a
// mailslot.
HANDLE OnlyMailslot() {
  for (std::uintptr_t value = 4; value < 0x4000; value += 4) {
    const auto handle = reinterpret_cast<HANDLE>(value);
    DWORD count = 0;
    if (GetMailslotInfo(handle, nullptr, nullptr, &count, nullptr) != FALSE) return handle;
  }
  return nullptr;
}

TEST(MailslotSecurity, EveryoneMayReadAndWriteAndAdministratorsMayAll) {
  ExchangeContext context;
  platform::SecurityAttributes attributes;
  ASSERT_TRUE(CreateSecurityAttributes(context, attributes));
  const platform::Mailslot mailslot = platform::Mailslot::Create(kServerMailslot, 0, &attributes);
  FreeSecurityAttributes(context);
  ASSERT_TRUE(mailslot.valid());

  const HANDLE server = OnlyMailslot();
  ASSERT_NE(server, nullptr);
  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_EQ(GetSecurityInfo(server, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                            &acl, nullptr, &descriptor),
            DWORD{ERROR_SUCCESS});
  ASSERT_NE(acl, nullptr);
  ASSERT_EQ(acl->AceCount, 2);
  const struct {
    const char* sid;
    DWORD generic, mapped;
  } expected[] = {
      {"S-1-1-0", GENERIC_READ | GENERIC_WRITE, FILE_GENERIC_READ | FILE_GENERIC_WRITE},
      {"S-1-5-32-544", GENERIC_ALL, FILE_ALL_ACCESS},
  };
  for (DWORD i = 0; i < 2; ++i) {
    void* entry = nullptr;
    ASSERT_NE(GetAce(acl, i, &entry), FALSE);
    const auto* const allowed = static_cast<const ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    EXPECT_EQ(allowed->Header.AceFlags, 0);
    EXPECT_EQ(SidText(entry), expected[i].sid);
    // As given, or as the system maps it for a file.
    EXPECT_TRUE(allowed->Mask == expected[i].generic || allowed->Mask == expected[i].mapped)
        << std::hex << allowed->Mask;
  }
  LocalFree(descriptor);
}

}  // namespace
}  // namespace talvorn
