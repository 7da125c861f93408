#include "platform/mailslot.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

constexpr std::u16string_view kName = u"\\\\.\\mailslot\\talvorn_test";
constexpr std::uint32_t kGenerousMs = 30'000;

class MailslotTest : public ::testing::Test {
 protected:
  testing::ScratchMachine machine_;
  Event readEvent_ = Event::Create(Event::Mode::kAutoReset);
};

TEST_F(MailslotTest, AMessageLargerThanTheBufferIsLostAndTheNextOneIsNot) {
  Mailslot mailslot = Mailslot::Create(kName, 5, nullptr);
  for (const std::size_t size : std::initializer_list<std::size_t>{11, 200'000, 10}) {
    ASSERT_EQ(WriteMailslot(kName, std::vector<std::byte>(size), 0), MailslotWrite::kWritten);
  }
  std::byte buffer[10];
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), 10u);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt) << "nothing waits";
}

TEST_F(MailslotTest, WaitingEndsWithAMessageTheWakeOrTheLimit) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  const Event wake = Event::Create(Event::Mode::kAutoReset);
  EXPECT_EQ(mailslot.WaitForMessage(wake, 0), WaitStatus::kTimeout);
  wake.Set();
  EXPECT_EQ(mailslot.WaitForMessage(wake, std::nullopt), WaitStatus::kTimeout);
  EXPECT_TRUE(wake.Test()) << "the wake is not consumed";
  ASSERT_EQ(WriteMailslot(kName, std::vector<std::byte>(1), 0), MailslotWrite::kWritten);
  EXPECT_EQ(mailslot.WaitForMessage(wake, kGenerousMs), WaitStatus::kSignalled);
  EXPECT_EQ(mailslot.Query()->nextSize, 1u);
  EXPECT_EQ(mailslot.WaitForMessage(wake, kGenerousMs), WaitStatus::kSignalled)
      << "also when it has been looked at";
}

TEST_F(MailslotTest, ANameMayHaveAPathThatLeadsNowhereElse) {
  const std::u16string prefix = u"\\\\.\\MailSlot\\";
  for (const char16_t* const good : {u"a", u"a\\b", u"A b\\..c\\d.e"}) {
    const std::u16string name = prefix + good;
    EXPECT_TRUE(IsMailslotName(name)) << WideToUtf8(name);
    Mailslot mailslot = Mailslot::Create(name, 0, nullptr);
    EXPECT_EQ(WriteMailslot(name, {}, 0), MailslotWrite::kWritten) << WideToUtf8(name);
    EXPECT_TRUE(mailslot.Query()->nextSize.has_value()) << WideToUtf8(name);
  }
  for (const char16_t* const bad : {u"", u".", u"..", u"\\a", u"a\\", u"a\\\\b", u"a\\.\\b",
                                    u"..\\a", u"a\\..\\b", u"a\\..", u"a/b", u"a\nb"}) {
    EXPECT_FALSE(IsMailslotName(prefix + bad)) << WideToUtf8(bad);
  }
}

}  // namespace
}  // namespace talvorn::platform
