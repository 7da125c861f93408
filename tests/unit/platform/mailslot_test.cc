#include "platform/mailslot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "platform/event.h"
#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using Taken = Mailslot::Taken;

constexpr std::span<const std::byte> kEmpty;

const std::u16string kName = MailslotName(u"talvorn_test");
constexpr std::uint32_t kGenerousMs = 30'000;

class MailslotTest : public ::testing::Test {
 protected:
  testing::ScratchMachine machine_;
};

TEST_F(MailslotTest, AMessageComesInItsPiecesAsOne) {
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 3, 200'000}) {
    const std::vector<std::byte> head(5, std::byte{1});
    const std::vector<std::byte> rest(size, std::byte{2});
    const std::span<const std::byte> parts[] = {head, rest};
    ASSERT_EQ(WriteMailslot(kName, parts, kGenerousMs), MailslotWrite::kWritten);
    Message message;
    ASSERT_EQ(mailslot.Take(message, size + 5), Taken::kMessage);
    EXPECT_TRUE(std::ranges::equal(message.bytes().first(5), head));
    EXPECT_TRUE(std::ranges::equal(message.bytes().subspan(5), rest));
  }
}

TEST_F(MailslotTest, AMessageLargerThanWantedIsLostAndTheNextOneIsNot) {
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  for (const std::size_t size : std::initializer_list<std::size_t>{11, 200'000, 10}) {
    ASSERT_EQ(WriteMailslot(kName, std::vector<std::byte>(size), 0), MailslotWrite::kWritten);
  }
  Message message;
  EXPECT_EQ(mailslot.Take(message, 10), Taken::kLost);
  EXPECT_EQ(mailslot.Take(message, 10), Taken::kLost);
  EXPECT_EQ(mailslot.Take(message, 10), Taken::kMessage);
  EXPECT_EQ(message.bytes().size(), 10u);
  EXPECT_EQ(mailslot.Take(message, 10), Taken::kNone);
}

TEST_F(MailslotTest, WaitingEndsWithAMessageTheWakeOrTheLimit) {
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  const Event wake = Event::Create(Event::Mode::kAutoReset);
  EXPECT_EQ(mailslot.WaitForMessage(wake, 0), WaitStatus::kTimeout);
  wake.Set();
  EXPECT_EQ(mailslot.WaitForMessage(wake, std::nullopt), WaitStatus::kTimeout);
  EXPECT_TRUE(wake.Test()) << "the wake is not consumed";
  ASSERT_EQ(WriteMailslot(kName, std::vector<std::byte>(1), 0), MailslotWrite::kWritten);
  EXPECT_EQ(mailslot.WaitForMessage(wake, kGenerousMs), WaitStatus::kSignalled);
}

TEST_F(MailslotTest, ANameMayHaveAPathThatLeadsNowhereElse) {
  const std::u16string prefix = u"\\\\.\\MailSlot\\";
  for (const char16_t* const good : {u"a", u"a\\b", u"A b\\..c\\d.e"}) {
    const std::u16string name = prefix + good;
    EXPECT_TRUE(IsMailslotName(name)) << WideToUtf8(name);
    Mailslot mailslot = Mailslot::Create(name, nullptr);
    EXPECT_EQ(WriteMailslot(name, kEmpty, 0), MailslotWrite::kWritten) << WideToUtf8(name);
    Message message;
    EXPECT_EQ(mailslot.Take(message, 0), Taken::kMessage) << WideToUtf8(name);
    EXPECT_TRUE(message.bytes().empty());
  }
  for (const char16_t* const bad : {u"", u".", u"..", u"\\a", u"a\\", u"a\\\\b", u"a\\.\\b",
                                    u"..\\a", u"a\\..\\b", u"a\\..", u"a/b", u"a\nb"}) {
    EXPECT_FALSE(IsMailslotName(prefix + bad)) << WideToUtf8(bad);
  }
}

}  // namespace
}  // namespace talvorn::platform
