#include <gtest/gtest.h>

#include "client/item_watch.h"
#include "client/reinitialisation.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/fault_injection.h"
#include "platform/registry.h"
#include "support/settings.h"
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

TEST(Reinitialisation, LeavesARequestThatTheLocatorMarksAsDone) {
  const testing::ScratchMachine machine;
  constexpr auto kAddress = "192.168.1.10";
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kNotAsked);
  EXPECT_EQ(RequestReinitialisation(kAddress), ReinitialisationStatus::kPending);
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kPending);
  auto key = platform::RegistryKey::Open(kInterfacesKey, platform::RegistryAccess::kReadWrite);
  ASSERT_TRUE(key.SetDword(u"192.168.1.10", 1));
  EXPECT_EQ(QueryReinitialisation(kAddress), ReinitialisationStatus::kDone);
  EXPECT_EQ(RequestReinitialisation(kAddress), ReinitialisationStatus::kPending);

  for (const char* text : {"", "192.168.1", "192.168.1.010", "192.168.1.256", "1.2.3.4 ", "::1"}) {
    EXPECT_EQ(RequestReinitialisation(text), ReinitialisationStatus::kNoAddress) << text;
  }
}

}  // namespace
}  // namespace talvorn
