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

TEST(CommandServer, EndsByItselfWithoutSecurityButWaitsForItsMailslot) {
  const testing::ScratchMachine machine;
  DebugTrace().SetEnabled(0);
  CResponseList responses;
  CItemList items;
  ExchangeContext context;
  context.responseList = &responses;
  context.itemList = &items;
  platform::ArmFault(platform::Fault::kSidAllocate, 1);
  ASSERT_TRUE(StartExchange(context));
  EXPECT_TRUE(testing::WaitUntil([&] { return !context.running; }));
  StopExchange(context);
  platform::DisarmFaults();

  platform::ArmFault(platform::Fault::kMailslotCreate, 1);
  ASSERT_TRUE(StartExchange(context));
  EXPECT_TRUE(testing::WaitUntil([] {
    return platform::WriteMailslot(kServerMailslot, std::span<const std::byte>(), 0) ==
           platform::MailslotWrite::kWritten;
  })) << "and tries again when only its mailslot could not be made";
  StopExchange(context);
  platform::DisarmFaults();
}

}  // namespace
}  // namespace talvorn
