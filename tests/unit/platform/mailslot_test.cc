#include "platform/mailslot.h"

#include <gtest/gtest.h>

#include <vector>

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

}  // namespace
}  // namespace talvorn::platform
