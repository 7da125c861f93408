#include "exchange/command_server.h"

#include <gtest/gtest.h>

#include "messages/messages.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

TEST(CommandServer, EndsByItselfWhenItCannotServe) {
  const testing::ScratchMachine machine;
  DebugTrace().SetEnabled(0);
  CResponseList responses;
  CItemList items;
  ExchangeContext context;
  context.responseList = &responses;
  context.itemList = &items;
  for (const auto fault : {platform::Fault::kSidAllocate, platform::Fault::kMailslotCreate}) {
    platform::ArmFault(fault, 1);
    ASSERT_TRUE(StartExchange(context));
    EXPECT_TRUE(testing::WaitUntil([&] { return !context.running; }));
    StopExchange(context);
    platform::DisarmFaults();
  }
  ASSERT_TRUE(StartExchange(context));
  EXPECT_TRUE(testing::WaitUntil([] {
    return platform::WriteMailslot(kServerMailslot, {}, 0) == platform::MailslotWrite::kWritten;
  })) << "and serves the next time";
  StopExchange(context);
}

}  // namespace
}  // namespace talvorn
