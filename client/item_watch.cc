#include "client/item_watch.h"

#include <algorithm>
#include <array>
#include <span>

#include "platform/clock.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kSettleMs = 300;
constexpr std::uint32_t kRenewMs = 1'000;

}  // namespace

ItemWatch::ItemWatch(std::uint32_t serial) : serial_(serial) { Renew(); }

// Manual-reset, so that a pulse releases every client that waits on the same event. The
// locator that pulses it may run as another user.
void ItemWatch::Renew() {
  if (event_.IsInPlace()) return;
  event_ =
      platform::NamedEvent::Create(ChangeEventName(serial_), platform::ObjectAccess::kEveryone);
}

ItemWatch::Outcome ItemWatch::Wait(std::uint32_t rereadMs, const platform::Waitable* interrupt) {
  const std::uint32_t limitMs = unsettled_ ? std::min(kSettleMs, rereadMs) : rereadMs;
  const std::uint64_t start = platform::MonotonicMs();
  for (std::uint64_t passed = 0;; passed = platform::MonotonicMs() - start) {
    Renew();
    const std::uint64_t left = passed < limitMs ? limitMs - passed : 0;
    const Outcome outcome =
        WaitFor(static_cast<std::uint32_t>(std::min<std::uint64_t>(left, kRenewMs)), interrupt);
    unsettled_ = outcome == Outcome::kChanged;
    if (outcome != Outcome::kTimeToRead || left <= kRenewMs) return outcome;
  }
}

ItemWatch::Outcome ItemWatch::WaitFor(std::uint32_t limitMs, const platform::Waitable* interrupt) {
  using Status = platform::NamedEvent::WaitResult::Status;
  const std::uint64_t start = platform::MonotonicMs();
  if (event_.valid()) {
    platform::NamedEvent* const events[] = {&event_};
    switch (platform::NamedEvent::WaitAny(events, interrupt, limitMs).status) {
      case Status::kEvent:
        return Outcome::kChanged;
      case Status::kInterrupted:
        return Outcome::kInterrupted;
      case Status::kTimeout:
        return Outcome::kTimeToRead;
      case Status::kFailed:
        break;
    }
  }
  // Without a working event, the interval alone: never a loop that spins.
  const std::uint64_t passed = platform::MonotonicMs() - start;
  const auto left = static_cast<std::uint32_t>(passed < limitMs ? limitMs - passed : 0);
  const platform::Waitable* const waitables[] = {interrupt};
  const bool interrupted =
      platform::WaitForAny(waitables, left) == platform::WaitStatus::kSignalled;
  return interrupted ? Outcome::kInterrupted : Outcome::kTimeToRead;
}

}  // namespace talvorn
