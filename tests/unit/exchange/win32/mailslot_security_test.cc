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
  const platform::Mailslot mailslot =
      platform::Mailslot::Create(platform::kLocatorMailslot, &attributes);
  FreeSecurityAttributes(context);
  ASSERT_TRUE(mailslot.valid());

  const HANDLE server = testing::OnlyMailslot();
  ASSERT_NE(server, nullptr);
  const std::vector<testing::AccessEntry> given = {{"S-1-1-0", GENERIC_READ | GENERIC_WRITE},
                                                   {"S-1-5-32-544", GENERIC_ALL}};
  const std::vector<testing::AccessEntry> mapped = {
      {"S-1-1-0", FILE_GENERIC_READ | FILE_GENERIC_WRITE}, {"S-1-5-32-544", FILE_ALL_ACCESS}};
  const auto entries = testing::AccessList(server);
  EXPECT_TRUE(entries == given || entries == mapped) << "as given, or as the system maps it";
}

}  // namespace
}  // namespace talvorn
