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

class RequestThreadShortage : public ::testing::TestWithParam<Shortage> {
 protected:
  RequestThreadShortage() { DebugTrace().SetEnabled(0); }
  ~RequestThreadShortage() override {
    platform::DisarmFaults();
    item_.running.Clear();
    item_.thread.Join();
  }

  testing::LoopbackDevice device_;
  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  OwnRequests own_;
  ThreadItem item_;
};

TEST_P(RequestThreadShortage, TheInterfaceIsHeardWhenItIsOver) {
  item_.id = device_.interface;
  item_.ipVersion = 4;
  item_.responseList = &responses_;
  item_.itemList = &items_;
  item_.ownRequests = &own_;
  item_.running.Set();

  platform::ArmFault(GetParam().fault, GetParam().times, GetParam().skip);
  item_.thread =
      platform::Thread::Start("request", [this] { return ThreadMulticastRequest(item_); });
  ASSERT_TRUE(item_.thread.valid());
  // By itself after a while, and at once when the machine's addresses change.
  const bool byItself = GetParam().fault == Fault::kGroupJoin;
  EXPECT_TRUE(testing::WaitUntil([&] {
    if (!byItself) item_.networkChanged.Set();
    device_.Answer();
    return responses_.count() > 0;
  })) << GetParam().what;
  EXPECT_FALSE(platform::FaultHits(GetParam().fault)) << "nothing was short";
}

INSTANTIATE_TEST_SUITE_P(Shortages, RequestThreadShortage, ::testing::ValuesIn(kShortages));

}  // namespace
}  // namespace talvorn
