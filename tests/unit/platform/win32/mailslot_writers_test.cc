#include <gtest/gtest.h>

#include <array>

#include "platform/mailslot.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The mailslot's own writer is the only one that it has at a time.
TEST(MailslotWriters, WaitForEachOtherForABoundedTime) {
  constexpr MailslotName kName(u"talvorn_test");
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  ASSERT_TRUE(mailslot.valid());
  FileHandle other(CreateFileW(ToNative(kName.text.data()), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(other.valid());
  EXPECT_TRUE(MailslotExists(kName));
  const std::array<std::byte, 3> message{};
  const MailslotWrite status = WriteMailslot(kName, message, 20);
  EXPECT_TRUE(status == MailslotWrite::kFull || status == MailslotWrite::kWritten);
  other.Close();
  EXPECT_EQ(WriteMailslot(kName, message, 0), MailslotWrite::kWritten);
}

}  // namespace
}  // namespace talvorn::platform
