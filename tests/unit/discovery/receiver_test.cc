// A receiver hears what comes in, lives on through errors of its receives, and ends when it
// is told to.
#include <gtest/gtest.h>

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "discovery/loopback_device.h"
#include "discovery/multicast_receiver.h"
#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/receive_errors.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::ArmFault;
using platform::Fault;

constexpr std::uint32_t kGenerousMs = 30'000;

class Receiver : public ::testing::Test {
 protected:
  void SetUp() override {
    DebugTrace().SetEnabled(0);
    receiver_.responseList = &responses_;
    receiver_.itemList = &items_;
    ASSERT_TRUE(OpenReceiver(receiver_, device_.interface, kResponseGroupIpv4));
  }
  void TearDown() override {
    platform::DisarmFaults();
    StopReceiver(receiver_);
  }

  // Whether the device's answers were all heard.
  bool AllAreHeard() {
    return testing::WaitUntil([this] { return responses_.count() == device_.answers; });
  }

  testing::LoopbackDevice device_;
  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  MulticastReceiver receiver_;
};

TEST_F(Receiver, WakesItsOwnerForAResponseOnlyWhileThatIsTraced) {
  device_.Answer();
  ASSERT_TRUE(AllAreHeard());
  device_.Answer();
  ASSERT_TRUE(AllAreHeard());
  EXPECT_FALSE(receiver_.dataEvent.Test());
  DebugTrace().SetEnabled(1);
  device_.Answer();
  EXPECT_EQ(receiver_.dataEvent.Wait(kGenerousMs), platform::WaitStatus::kSignalled);
  DebugTrace().SetEnabled(0);
}

TEST_F(Receiver, LosesNoDatagramToAnErrorThatPasses) {
  device_.Answer();
  ASSERT_TRUE(AllAreHeard());
  for (const int error : testing::kPassingReceiveErrors) {
    // The receive that the datagram brings about fails, and the next finds it still there.
    ArmFault(Fault::kReceive, 1, 0, error);
    device_.Answer();
    EXPECT_TRUE(AllAreHeard()) << error;
    EXPECT_FALSE(platform::FaultHits(Fault::kReceive)) << "no receive has failed";
  }
}

TEST_F(Receiver, TakesTheBeginningOfALargeDatagram) {
  for (const std::size_t size : {std::size_t{1'501}, std::size_t{60'000}, kDeviceRecordSize}) {
    device_.Answer(size);
    EXPECT_TRUE(size == 60'000 || AllAreHeard()) << size;
  }
}

TEST_F(Receiver, EndsWithADeadSocket) {
  for (const int error : testing::kDeadlyReceiveErrors) {
    ArmFault(Fault::kReceive, 1, 0, error);
    device_.Answer();
    EXPECT_TRUE(receiver_.thread.JoinFor(kGenerousMs)) << error;
    EXPECT_FALSE(receiver_.socket.valid()) << error;
    StopReceiver(receiver_);
    ASSERT_TRUE(OpenReceiver(receiver_, device_.interface, kResponseGroupIpv4));
  }
}

}  // namespace
}  // namespace talvorn
