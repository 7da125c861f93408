#include <atomic>
#include <cstdint>
#include <memory>

#include "client/client_presence.h"
#include "library/background.h"
#include "library/status.h"
#include "support/completed.h"
#include "talvorn/talvorn.h"

using namespace talvorn;
using platform::Event;

namespace {

constexpr std::uint32_t kRenewMs = 1'000;

}  // namespace

struct talvorn_presence {
  void KeepUp(const Event& stop) {
    while (stop.Wait(kRenewMs) == platform::WaitStatus::kTimeout) {
      (void)Completed([this] { presence.Renew(); });
      held = presence.held();
    }
  }

  ClientPresence presence{};
  std::atomic<bool> held = presence.held();
  Background background{};  // ends before what it uses
};

talvorn_status talvorn_presence_open(talvorn_presence** presence) {
  if (presence == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&]() -> talvorn_status {
    auto made = std::make_unique<talvorn_presence>();
    const bool started = made->background.Start(
        "talvorn-held", [presence = made.get()](const Event& stop) { presence->KeepUp(stop); });
    if (!started) return TALVORN_NO_RESOURCES;
    *presence = made.release();
    return TALVORN_OK;
  });
}

talvorn_status talvorn_presence_get_status(const talvorn_presence* presence) {
  if (presence == nullptr) return TALVORN_BAD_ARGUMENT;
  return presence->held ? TALVORN_OK : TALVORN_NO_OBJECT;
}

void talvorn_presence_close(talvorn_presence* presence) { delete presence; }
