// A receiver hears what comes in, lives on through errors of its receives, and ends when it
// is told to.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <vector>

#include "devices/device_record.h"
#include "devices/item_list.h"
#include "devices/response_list.h"
#include "discovery/datagram.h"
#include "discovery/multicast_receiver.h"
#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/receive_errors.h"
#include "testing/scratch_machine.h"
#include "testing/socket_library.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::ArmFault;
using platform::Fault;
using platform::Socket;
using platform::SocketAddress;

constexpr std::uint32_t kGenerousMs = 30'000;

class Receiver : public ::testing::Test {
 protected:
  void SetUp() override {
    DebugTrace().SetEnabled(0);
    receiver_.responseList = &responses_;
    receiver_.itemList = &items_;
    ASSERT_TRUE(OpenReceiver(receiver_, interface_, kResponseGroupIpv4));
    ASSERT_TRUE(sender_.SetMulticastLoopback(true));
    ASSERT_TRUE(sender_.SetMulticastInterface(interface_));
  }
  void TearDown() override {
    platform::DisarmFaults();
    StopReceiver(receiver_);
  }

  // Sends the record of a new device in a datagram of `size` bytes.
  void Answer(std::size_t size) {
    DeviceRecord record;
    record.length = kDeviceRecordSize;
    record.magic.Assign(kMagic);
    record.type.Assign(kTypeRecord);
    record.deviceSerial.Assign(std::to_string(++devices_));
    std::vector<std::byte> datagram(size);
    EncodeDeviceRecord(record, std::span(datagram).first<kDeviceRecordSize>());
    EXPECT_EQ(sender_.SendTo(datagram, group_), size);
  }
  // Whether every device that answered so far was heard.
  bool AllAreHeard() {
    return testing::WaitUntil([this] { return responses_.count() == devices_; });
  }

  const std::uint32_t interface_ = platform::ParseIpv4("127.0.0.1");
  const SocketAddress group_ =
      SocketAddress::Ipv4(platform::ParseIpv4(kResponseGroupIpv4), kDiscoveryPort);
  Socket sender_ = Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kDatagram);
  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  MulticastReceiver receiver_;
  std::uint32_t devices_ = 0;
};

TEST_F(Receiver, WakesItsOwnerForAResponseOnlyWhileThatIsTraced) {
  Answer(kDeviceRecordSize);
  ASSERT_TRUE(AllAreHeard());
  Answer(kDeviceRecordSize);
  ASSERT_TRUE(AllAreHeard());
  EXPECT_FALSE(receiver_.dataEvent.Test());
  DebugTrace().SetEnabled(1);
  Answer(kDeviceRecordSize);
  EXPECT_EQ(receiver_.dataEvent.Wait(kGenerousMs), platform::WaitStatus::kSignalled);
  DebugTrace().SetEnabled(0);
}

TEST_F(Receiver, LosesNoDatagramToAnErrorThatPasses) {
  Answer(kDeviceRecordSize);
  ASSERT_TRUE(AllAreHeard());
  for (const int error : testing::kPassingReceiveErrors) {
    // The receive that the datagram brings about fails, and the next finds it still there.
    ArmFault(Fault::kReceive, 1, 0, error);
    Answer(kDeviceRecordSize);
    EXPECT_TRUE(AllAreHeard()) << error;
    EXPECT_FALSE(platform::FaultHits(Fault::kReceive)) << "no receive has failed";
  }
}

TEST_F(Receiver, TakesTheBeginningOfALargeDatagram) {
  Answer(1'501);
  EXPECT_TRUE(AllAreHeard());
  Answer(60'000);
  Answer(kDeviceRecordSize);
  EXPECT_TRUE(AllAreHeard());
}

TEST_F(Receiver, EndsWithADeadSocket) {
  ArmFault(Fault::kReceive, 1, 0, testing::kDeadlyReceiveErrors.front());
  Answer(kDeviceRecordSize);
  EXPECT_TRUE(receiver_.thread.JoinFor(kGenerousMs));
  EXPECT_FALSE(receiver_.socket.valid());
}

TEST(MulticastReceiver, TellsItsThreadToEndAndWaitsForItBeforeItsEventsGo) {
  std::atomic<bool> waits{false};
  std::atomic<bool> told{false};
  {
    MulticastReceiver receiver;
    receiver.thread = platform::Thread::Start("receiver", [&] {
      waits = true;
      told = receiver.stopEvent.Wait(kGenerousMs) == platform::WaitStatus::kSignalled;
      return 0u;
    });
    ASSERT_TRUE(testing::WaitUntil([&] { return waits.load(); }));
  }
  EXPECT_TRUE(told);
}

}  // namespace
}  // namespace talvorn
