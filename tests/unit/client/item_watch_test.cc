#include <gtest/gtest.h>

#include "client/item_watch.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/fault_injection.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kLongMs = 30'000;

TEST(ItemWatch, WaitsItsTimeAlsoWithoutAnEventAndCanBeInterrupted) {
  const testing::ScratchMachine machine;
  ItemWatch usual;
  platform::ArmFault(platform::Fault::kNamedObjectOpen, 1);
  ItemWatch without;
  platform::DisarmFaults();
  EXPECT_FALSE(without.valid());
  for (ItemWatch* watch : {&usual, &without}) {
    const std::uint64_t start = platform::MonotonicMs();
    EXPECT_EQ(watch->Wait(50), ItemWatch::Outcome::kTimeToRead);
    EXPECT_GE(platform::MonotonicMs() - start, 50u);
  }
  const auto interrupt = platform::Event::Create(platform::Event::Mode::kManualReset);
  interrupt.Set();
  EXPECT_EQ(usual.Wait(kLongMs, &interrupt), ItemWatch::Outcome::kInterrupted);
}

}  // namespace
}  // namespace talvorn
