#include "exchange/command_server.h"

#include <gtest/gtest.h>

#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Fault;

TEST(CommandServer, EndsByItselfWithoutSecurity) {
  const testing::ScratchMachine machine;
  DebugTrace().SetEnabled(0);
  ExchangeContext context;
  const std::pair<Fault, int> steps[] = {{Fault::kSidAllocate, 0},
                                         {Fault::kSidAllocate, 1},
                                         {Fault::kAclMake, 0},
                                         {Fault::kDescriptorMake, 0}};
  for (const auto& [fault, skip] : steps) {
    platform::ArmFault(fault, 1, skip);
    ASSERT_TRUE(StartExchange(context));
    EXPECT_TRUE(testing::WaitUntil([&] { return !context.running; })) << static_cast<int>(fault);
    StopExchange(context);
    EXPECT_EQ(context.everyoneSid, nullptr) << "it is freed";
  }
  platform::DisarmFaults();
}

}  // namespace
}  // namespace talvorn
