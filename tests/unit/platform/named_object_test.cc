#include "platform/named_object.h"

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/event.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using Status = NamedEvent::WaitResult::Status;

TEST(NamedObject, WaitAnyTellsWhatEndedIt) {
  const testing::ScratchMachine machine;
  NamedEvent a = NamedEvent::Create(u"a");
  NamedEvent b = NamedEvent::Create(u"b");
  NamedEvent closed;
  NamedEvent* const events[] = {&closed, &a, nullptr, &b};
  const Event interrupt = Event::Create(Event::Mode::kAutoReset);

  const std::uint64_t start = MonotonicMs();
  EXPECT_EQ(NamedEvent::WaitAny(events, &interrupt, 20).status, Status::kTimeout);
  EXPECT_GE(MonotonicMs() - start, 20u);
  interrupt.Set();
  EXPECT_EQ(NamedEvent::WaitAny(events, &interrupt, std::nullopt).status, Status::kInterrupted);
  EXPECT_EQ(NamedEvent::WaitAny({}, &interrupt, std::nullopt).status, Status::kInterrupted);
  b.Set();
  auto result = NamedEvent::WaitAny(events, &interrupt, std::nullopt);
  EXPECT_EQ(result.status, Status::kEvent);
  EXPECT_EQ(result.index, 3u);
  a.Set();
  result = NamedEvent::WaitAny(events, &interrupt, std::nullopt);
  EXPECT_EQ(result.index, 1u);
  EXPECT_TRUE(interrupt.Test()) << "the interrupt is not consumed";
  // An interrupt that could not be made leaves its owner to look for himself.
  a.Reset();
  b.Reset();
  const Event none;
  EXPECT_EQ(NamedEvent::WaitAny(events, &none, std::nullopt).status, Status::kTimeout);
}

}  // namespace
}  // namespace talvorn::platform
