#include "exchange/command_server.h"

#include <gtest/gtest.h>

#include "exchange/messages/messages.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Fault;

class CommandServer : public ::testing::Test {
 protected:
  CommandServer() {
    DebugTrace().SetEnabled(0);
    context_.responseList = &responses_;
    context_.itemList = &items_;
  }
  ~CommandServer() override { platform::DisarmFaults(); }

  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  ExchangeContext context_;
};

TEST_F(CommandServer, EndsByItselfWithoutSecurity) {
  const std::pair<Fault, int> steps[] = {{Fault::kSidAllocate, 0},
                                         {Fault::kSidAllocate, 1},
                                         {Fault::kAclMake, 0},
                                         {Fault::kDescriptorMake, 0}};
  for (const auto& [fault, skip] : steps) {
    platform::ArmFault(fault, 1, skip);
    ASSERT_TRUE(StartExchange(context_));
    EXPECT_TRUE(testing::WaitUntil([&] { return !context_.running; })) << static_cast<int>(fault);
    StopExchange(context_);
    EXPECT_EQ(context_.everyoneSid, nullptr) << "it is freed";
  }
}

TEST_F(CommandServer, TriesAgainWhenItsMailslotCouldNotBeMade) {
  platform::ArmFault(Fault::kMailslotCreate, 1);
  ASSERT_TRUE(StartExchange(context_));
  EXPECT_TRUE(testing::WaitUntil([] {
    return platform::WriteMailslot(kServerMailslot, std::span<const std::byte>(), 0) ==
           platform::MailslotWrite::kWritten;
  }));
  StopExchange(context_);
}

}  // namespace
}  // namespace talvorn
