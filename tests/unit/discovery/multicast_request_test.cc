// A request thread that finds the system short of something hears its interface once
// that is over.
#include "discovery/multicast_request.h"

#include <gtest/gtest.h>

#include "discovery/loopback_device.h"
#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Fault;

struct Shortage {
  const char* what;
  Fault fault;
  int times;
  int skip;  // calls that are not the request thread's
};
constexpr Shortage kShortages[] = {
    {"the group cannot be joined", Fault::kGroupJoin, 2, 0},
    {"no socket for a receiver", Fault::kSocketCreate, 2, 1},
    {"no thread for receivers and timers", Fault::kThreadStart, 4, 1},
    {"no events for receivers and timers", Fault::kEventCreate, 16, 0},
};

TEST(RequestThread, HearsItsInterfaceWhenAShortageIsOver) {
  const testing::ScratchMachine machine;
  DebugTrace().SetEnabled(0);
  testing::LoopbackDevice device;
  for (const Shortage& shortage : kShortages) {
    SCOPED_TRACE(shortage.what);
    CResponseList responses;
    CItemList items;
    OwnRequests own;
    ThreadItem item;
    item.id = device.interface;
    item.ipVersion = 4;
    item.responseList = &responses;
    item.itemList = &items;
    item.ownRequests = &own;
    item.running.Set();
    platform::ArmFault(shortage.fault, shortage.times, shortage.skip);
    item.thread = platform::Thread::Start("request", [&] { return ThreadMulticastRequest(item); });
    // By itself after a while, and at once when the machine's addresses change.
    const bool byItself = shortage.fault == Fault::kGroupJoin;
    EXPECT_TRUE(testing::WaitUntil([&] {
      if (!byItself) item.networkChanged.Set();
      device.Answer();
      return responses.count() > 0;
    }));
    EXPECT_FALSE(platform::FaultHits(shortage.fault)) << "nothing was short";
    platform::DisarmFaults();
    item.running.Clear();
    item.thread.Join();
  }
}

}  // namespace
}  // namespace talvorn
