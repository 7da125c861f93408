#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exchange/command_server.h"
#include "exchange/messages/messages.h"
#include "platform/event.h"
#include "platform/mailslot.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

class LargeReplies : public ::testing::Test {
 protected:
  LargeReplies() {
    DebugTrace().SetEnabled(0);
    context_.responseList = &responses_;
    context_.itemList = &items_;
  }
  ~LargeReplies() override { StopExchange(context_); }

  // Size of the reply to `command`; 0 when none comes.
  std::size_t SizeOfReply(const std::string& command) {
    constexpr std::uint32_t kLimitMs = 300'000;  // sanitizers take their time
    const auto request = EncodeRequest({.replyMailslot = {}, .command = command});
    auto replies = platform::Mailslot::Create(kDefaultReplyMailslot, nullptr);
    EXPECT_TRUE(testing::WaitUntil([&] {
      return platform::WriteMailslot(platform::kLocatorMailslot, *request, 0) ==
             platform::MailslotWrite::kWritten;
    }));
    const auto never = platform::Event::Create(platform::Event::Mode::kAutoReset);
    (void)replies.WaitForMessage(never, kLimitMs);
    platform::Message reply;
    (void)replies.Take(reply, std::size_t{1} << 30);
    return reply.bytes().size();
  }

  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  ExchangeContext context_;
};

TEST_F(LargeReplies, AreDeliveredHoweverFullTheListsAre) {
  std::uint32_t serial = 0;
  while (responses_.count() == serial) {
    DeviceRecord record;
    record.deviceSerial.Assign(std::to_string(++serial));
    (void)responses_.Add(&record, 0);
  }
  std::vector<std::byte> bytes(CItemList::kMostOfDevice.bytes - sizeof(serial));
  ByteWriter{std::span(bytes).subspan(20)}.U32Big(static_cast<std::uint32_t>(bytes.size() - 20));
  for (serial = 1; items_.count() == serial - 1; ++serial) items_.Add(serial, *ParseItem(bytes));

  ASSERT_TRUE(StartExchange(context_));
  EXPECT_EQ(SizeOfReply("GETINFO"),
            kReplyHeaderSize + CResponseList::kMostEntries * kDeviceRecordSize);
  EXPECT_EQ(SizeOfReply("GETITEMS"), kReplyHeaderSize + CItemList::kMost.bytes);
}

}  // namespace
}  // namespace talvorn
