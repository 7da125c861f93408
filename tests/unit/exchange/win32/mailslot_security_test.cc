#include <gtest/gtest.h>

#include "exchange/messages/messages.h"
#include "exchange/object_security.h"
#include "platform/mailslot.h"
#include "testing/win32/access_list.h"

namespace talvorn {
namespace {

TEST(MailslotSecurity, EveryoneMayReadAndWriteAndAdministratorsMayAll) {
  ExchangeContext context;
  platform::SecurityAttributes attributes;
  ASSERT_TRUE(CreateSecurityAttributes(context, attributes));
  const platform::Mailslot mailslot = platform::Mailslot::Create(kServerMailslot, &attributes);
  FreeSecurityAttributes(context);
  ASSERT_TRUE(mailslot.valid());

  const HANDLE server = testing::OnlyMailslot();
  ASSERT_NE(server, nullptr);
  const auto entries = testing::AccessList(server);
  const struct {
    const char* sid;
    DWORD generic, mapped;
  } expected[] = {
      {"S-1-1-0", GENERIC_READ | GENERIC_WRITE, FILE_GENERIC_READ | FILE_GENERIC_WRITE},
      {"S-1-5-32-544", GENERIC_ALL, FILE_ALL_ACCESS},
  };
  ASSERT_EQ(entries.size(), std::size(expected));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EXPECT_TRUE(entries[i].plain);
    EXPECT_EQ(entries[i].sid, expected[i].sid);
    // As given, or as the system maps it for a file.
    EXPECT_TRUE(entries[i].rights == expected[i].generic || entries[i].rights == expected[i].mapped)
        << std::hex << entries[i].rights;
  }
}

}  // namespace
}  // namespace talvorn
