#include "exchange/command_server.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "messages/messages.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Mailslot;

class CommandServerTest : public ::testing::Test {
 protected:
  static constexpr std::u16string_view kInbox = u"\\\\.\\mailslot\\test_client";

  CommandServerTest() {
    DebugTrace().SetEnabled(0);
    context_.responseList = &responses_;
    context_.itemList = &items_;
    EXPECT_TRUE(inbox_.valid());
  }
  ~CommandServerTest() override { StopExchange(context_); }

  // Whether the server comes to answer a command.
  bool Answers() {
    const auto request = *EncodeRequest({std::u16string(kInbox), "GETVERSION"});
    const auto event = platform::Event::Create(platform::Event::Mode::kAutoReset);
    std::array<std::byte, 100> reply;
    std::optional<std::size_t> size;
    return testing::WaitUntil([&] {
             return platform::WriteMailslot(kServerMailslot, request, 5'000) ==
                    platform::MailslotWrite::kWritten;
           }) &&
           testing::WaitUntil([&] { return bool(size = inbox_.Read(reply, event)); }) &&
           AsText(reply).substr(0, *size) == std::string_view(
                                                 "\x14\0\0\0\2\0\0\0\x8\0\0\0"
                                                 "1.0.0.0\0",
                                                 20);
  }

  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  ExchangeContext context_;
  Mailslot inbox_ = Mailslot::Create(kInbox, 0, nullptr);
};

TEST_F(CommandServerTest, EndsByItselfWhenItCannotServe) {
  for (const auto fault : {platform::Fault::kSidAllocate, platform::Fault::kMailslotCreate}) {
    platform::ArmFault(fault, 1);
    ASSERT_TRUE(StartExchange(context_));
    EXPECT_TRUE(testing::WaitUntil([this] { return !context_.running; }));
    StopExchange(context_);
    platform::DisarmFaults();
  }
  ASSERT_TRUE(StartExchange(context_));
  EXPECT_TRUE(Answers());
  ExchangeContext second;
  second.responseList = &responses_;
  second.itemList = &items_;
  ASSERT_TRUE(StartExchange(second));
  EXPECT_TRUE(testing::WaitUntil([&] { return !second.running; })) << "the name is taken";
  StopExchange(second);
  EXPECT_TRUE(Answers());
}

}  // namespace
}  // namespace talvorn
