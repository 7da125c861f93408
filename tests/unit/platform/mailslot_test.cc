#include "platform/mailslot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/thread.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

constexpr std::u16string_view kName = u"\\\\.\\mailslot\\talvorn_test";
constexpr std::uint32_t kGenerousMs = 30'000;

std::vector<std::byte> Pattern(std::size_t size) {
  std::vector<std::byte> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i * 7 + i / 251);
  return bytes;
}

class MailslotTest : public ::testing::Test {
 protected:
  std::optional<std::vector<std::byte>> Read(Mailslot& mailslot) {
    const auto waiting = mailslot.Query();
    if (!waiting || !waiting->nextSize) return std::nullopt;
    EXPECT_GE(waiting->count, 1u);
    std::vector<std::byte> message(*waiting->nextSize + 10);
    const auto size = mailslot.Read(message, readEvent_);
    if (!size) return std::nullopt;
    EXPECT_EQ(size, waiting->nextSize);
    message.resize(*size);
    return message;
  }

  testing::ScratchMachine machine_;
  Event readEvent_ = Event::Create(Event::Mode::kAutoReset);
};

TEST_F(MailslotTest, NamesAreThePrefixAndAPlainName) {
  const std::u16string prefix = u"\\\\.\\mailslot\\";
  for (const char16_t* plain : {u"talvorn_in", u"a b", u"...", u".x", u"Gr\u00FC\u00DFe"}) {
    EXPECT_TRUE(IsMailslotName(prefix + plain));
  }
  for (const std::u16string& plain :
       {std::u16string(), std::u16string(u".."), std::u16string(u"a\\b"), std::u16string(u"../x"),
        std::u16string(u"a\nb"), std::u16string(1, u'\0'), std::u16string(1, 0xD800),
        std::u16string(256, u'x')}) {
    EXPECT_FALSE(IsMailslotName(prefix + plain));
    EXPECT_EQ(WriteMailslot(prefix + plain, {}, 0), MailslotWrite::kFailed);
    EXPECT_FALSE(Mailslot::Create(prefix + plain, 0, nullptr).valid());
  }
}

TEST_F(MailslotTest, MessagesOfAnySizeArriveWholeAndInOrder) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  ASSERT_TRUE(mailslot.valid());
  ASSERT_TRUE(mailslot.Query());
  EXPECT_FALSE(mailslot.Query()->nextSize);
  std::vector<std::size_t> sizes = {0, 1, 1164, 131'072, 131'073, 3'670'012};
  std::erase_if(sizes,
                [this](std::size_t size) { return size > machine_.LargestMailslotMessage(); });
  for (const std::size_t size : sizes) {
    EXPECT_EQ(WriteMailslot(kName, Pattern(size), 0), MailslotWrite::kWritten) << size;
  }
  for (const std::size_t size : sizes) {
    EXPECT_EQ(mailslot.Query()->nextSize, size);
    EXPECT_EQ(Read(mailslot), Pattern(size)) << size;
  }
  EXPECT_FALSE(mailslot.Query()->nextSize);
}

TEST_F(MailslotTest, AMessageLargerThanTheBufferIsLostAndTheNextOneIsNot) {
  Mailslot mailslot = Mailslot::Create(kName, 5, nullptr);
  for (const std::size_t size : std::initializer_list<std::size_t>{11, 200'000, 10}) {
    ASSERT_EQ(WriteMailslot(kName, Pattern(size), 0), MailslotWrite::kWritten);
  }
  std::byte buffer[10];
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), 10u);
  EXPECT_EQ(mailslot.Read(buffer, readEvent_), std::nullopt) << "nothing waits";
}

TEST_F(MailslotTest, ANameBelongsToOneMailslotAtATime) {
  Mailslot first = Mailslot::Create(kName, 0, nullptr);
  ASSERT_TRUE(first.valid());
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid());
  EXPECT_FALSE(Mailslot::Create(u"\\\\.\\MAILSLOT\\Talvorn_Test", 0, nullptr).valid());
  EXPECT_EQ(WriteMailslot(u"\\\\.\\mailslot\\TALVORN_TEST", Pattern(3), 0),
            MailslotWrite::kWritten);
  EXPECT_EQ(Read(first), Pattern(3));

  Mailslot moved = std::move(first);
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  moved = Mailslot();
  EXPECT_EQ(WriteMailslot(kName, {}, kGenerousMs), MailslotWrite::kAbsent);
  EXPECT_TRUE(Mailslot::Create(kName, 0, nullptr).valid());

  ArmFault(Fault::kMailslotCreate, 1);
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid());
  DisarmFaults();
}

TEST_F(MailslotTest, AReaderThatDoesNotReadDelaysNobodyWhoDoesNotWait) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  int written = 0;
  const std::vector<std::byte> large = Pattern(200'000);
  while (WriteMailslot(kName, large, 0) == MailslotWrite::kWritten && written < 100'000) ++written;
  EXPECT_GT(written, 0);
  EXPECT_EQ(WriteMailslot(kName, large, 0), MailslotWrite::kFull);
  const std::uint64_t start = MonotonicMs();
  EXPECT_EQ(WriteMailslot(kName, large, 30), MailslotWrite::kFull);
  EXPECT_GE(MonotonicMs() - start, 30u);

  // Who waits gets the room that the reader makes.
  Thread writer = Thread::Start("writer", [] {
    return static_cast<std::uint32_t>(WriteMailslot(kName, Pattern(7), kGenerousMs) !=
                                      MailslotWrite::kWritten);
  });
  while (written-- > 0) {
    ASSERT_EQ(mailslot.WaitForMessage(readEvent_, kGenerousMs), WaitStatus::kSignalled);
    EXPECT_EQ(Read(mailslot), large);
  }
  ASSERT_EQ(mailslot.WaitForMessage(readEvent_, kGenerousMs), WaitStatus::kSignalled);
  EXPECT_EQ(Read(mailslot), Pattern(7));
  writer.Join();
}

TEST_F(MailslotTest, WaitingEndsWithAMessageTheWakeOrTheLimit) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  const Event wake = Event::Create(Event::Mode::kAutoReset);
  EXPECT_EQ(mailslot.WaitForMessage(wake, 0), WaitStatus::kTimeout);
  wake.Set();
  EXPECT_EQ(mailslot.WaitForMessage(wake, std::nullopt), WaitStatus::kTimeout);
  EXPECT_TRUE(wake.Test()) << "the wake is not consumed";
  ASSERT_EQ(WriteMailslot(kName, Pattern(1), 0), MailslotWrite::kWritten);
  EXPECT_EQ(mailslot.WaitForMessage(wake, kGenerousMs), WaitStatus::kSignalled);
  EXPECT_EQ(mailslot.Query()->nextSize, 1u);
  EXPECT_EQ(mailslot.WaitForMessage(wake, kGenerousMs), WaitStatus::kSignalled)
      << "also when it has been looked at";
}

}  // namespace
}  // namespace talvorn::platform
