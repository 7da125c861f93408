// What the client library makes is used by a locator of another account.
#include <gtest/gtest.h>

#include "client/client_presence.h"
#include "client/item_watch.h"
#include "exchange/messages/messages.h"
#include "platform/mailslot.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"
#include "testing/win32/access_list.h"

namespace talvorn {
namespace {

using platform::KernelHandle;

const wchar_t* Native(const std::u16string& name) { return platform::ToNative(name); }

void ExpectForEveryone(HANDLE object, DWORD rights) {
  const auto entries = testing::AccessList(object);
  ASSERT_EQ(entries.size(), 2u);  // the other one is our own account's
  EXPECT_EQ(entries.front(), testing::AccessEntry("S-1-1-0", rights));
  EXPECT_NE(entries.back().first, "S-1-1-0");
}

TEST(ClientObjects, LetTheLocatorIn) {
  const ClientPresence presence;
  const ItemWatch watch(4711);
  ASSERT_TRUE(presence.held() && watch.valid());
  const KernelHandle mutex(
      OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Native(std::u16string(kClientMutex))));
  const KernelHandle event(OpenEventW(EVENT_ALL_ACCESS, FALSE, Native(ChangeEventName(4711))));
  ASSERT_TRUE(mutex.valid() && event.valid());
  ExpectForEveryone(mutex.get(), MUTEX_ALL_ACCESS);
  ExpectForEveryone(event.get(), EVENT_ALL_ACCESS);

  const auto mailslot =
      platform::Mailslot::Create(platform::MailslotName(u"talvorn_test_objects"), nullptr);
  ASSERT_TRUE(mailslot.valid());
  const HANDLE reader = testing::OnlyMailslot();
  ASSERT_NE(reader, nullptr);
  ExpectForEveryone(reader, FILE_GENERIC_WRITE);
}

}  // namespace
}  // namespace talvorn
