#include <cstdint>
#include <memory>

#include "client/item_watch.h"
#include "library/background.h"
#include "library/sized_structure.h"
#include "library/status.h"
#include "platform/event.h"
#include "support/completed.h"
#include "talvorn/talvorn.h"

using namespace talvorn;
using platform::Event;

namespace {

constexpr std::uint32_t kDefaultIntervalMs = 5'000;
// A burst of changes is told as a few.
constexpr std::uint32_t kMinGapMs = 100;

}  // namespace

// A signal reaches only who waits at that moment: a thread always waits, and keeps what it has
// heard in an event of its own.
struct talvorn_watch {
  explicit talvorn_watch(const talvorn_watch_options& options)
      : items(options.device),
        intervalMs(options.interval_ms != 0 ? options.interval_ms : kDefaultIntervalMs) {}

  void Listen(const Event& stop) {
    for (bool listening = true; listening;) {
      // A pass that lacks memory tells what it may have missed.
      if (!Completed([&] { listening = ListenOnce(stop); })) (void)due.Set();
      listening = listening && stop.Wait(kMinGapMs) == platform::WaitStatus::kTimeout;
    }
  }

  bool ListenOnce(const Event& stop) {
    if (items.Wait(intervalMs, &stop) == ItemWatch::Outcome::kInterrupted) return false;
    (void)due.Set();
    return true;
  }

  ItemWatch items;
  const std::uint32_t intervalMs;
  Event due = Event::Create(Event::Mode::kAutoReset);
  Background background{};  // ends before what it uses
};

talvorn_status talvorn_watch_open(const talvorn_watch_options* options, talvorn_watch** watch) {
  if (watch == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&]() -> talvorn_status {
    talvorn_watch_options given;
    if (const talvorn_status status = TakeOptions(options, given); status != TALVORN_OK)
      return status;
    auto made = std::make_unique<talvorn_watch>(given);
    const bool started =
        made->due.waitHandle() != platform::kNoWaitHandle &&
        made->background.Start("talvorn-watch",
                               [watch = made.get()](const Event& stop) { watch->Listen(stop); });
    if (!started) return TALVORN_NO_RESOURCES;
    *watch = made.release();
    return TALVORN_OK;
  });
}

void talvorn_watch_close(talvorn_watch* watch) { delete watch; }

talvorn_status talvorn_watch_wait(talvorn_watch* watch, uint32_t timeout_ms) {
  if (watch == nullptr) return TALVORN_BAD_ARGUMENT;
  switch (watch->due.Wait(timeout_ms)) {
    case platform::WaitStatus::kSignalled:
      return TALVORN_OK;
    case platform::WaitStatus::kTimeout:
      return TALVORN_TIMEOUT;
    case platform::WaitStatus::kFailed:
      break;
  }
  return TALVORN_NO_RESOURCES;
}

talvorn_waitable talvorn_watch_get_waitable(const talvorn_watch* watch) {
  return watch == nullptr ? platform::kNoWaitHandle : watch->due.waitHandle();
}
