#include "client/item_watch.h"

#include <array>
#include <span>

#include "platform/clock.h"

namespace talvorn {

ItemWatch::ItemWatch(std::uint32_t serial) : serial_(serial) { Renew(); }

// Manual-reset, so that a pulse releases every client that waits on the same event. The
// locator that pulses it may run as another user.
void ItemWatch::Renew() {
  if (event_.IsInPlace()) return;
  event_ =
      platform::NamedEvent::Create(ChangeEventName(serial_), platform::ObjectAccess::kEveryone);
}

ItemWatch::Outcome ItemWatch::Wait(std::uint32_t rereadMs, const platform::Waitable* interrupt) {
  Renew();
  using Status = platform::NamedEvent::WaitResult::Status;
  const std::uint64_t start = platform::MonotonicMs();
  if (event_.valid()) {
    platform::NamedEvent* const events[] = {&event_};
    switch (platform::NamedEvent::WaitAny(events, interrupt, rereadMs).status) {
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
  const auto left = static_cast<std::uint32_t>(passed < rereadMs ? rereadMs - passed : 0);
  const platform::Waitable* const waitables[] = {interrupt};
  const bool interrupted =
      platform::WaitForAny(waitables, left) == platform::WaitStatus::kSignalled;
  return interrupted ? Outcome::kInterrupted : Outcome::kTimeToRead;
}

}  // namespace talvorn
