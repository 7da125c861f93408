#include <gtest/gtest.h>

#include <atomic>

#include "discovery/multicast_receiver.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

TEST(MulticastReceiver, TellsItsThreadToEndAndWaitsForItBeforeItsEventsGo) {
  std::atomic<bool> waits{false};
  std::atomic<bool> told{false};
  {
    MulticastReceiver receiver;
    receiver.thread = platform::Thread::Start("receiver", [&] {
      waits = true;
      told = receiver.stopEvent.Wait(30'000) == platform::WaitStatus::kSignalled;
      return 0u;
    });
    ASSERT_TRUE(testing::WaitUntil([&] { return waits.load(); }));
  }
  EXPECT_TRUE(told);
}

}  // namespace
}  // namespace talvorn
