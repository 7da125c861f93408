// watch: a line for every change.
#include <algorithm>
#include <iterator>
#include <string>

#include "client/client_presence.h"
#include "client/item_watch.h"
#include "client/tool/changes.h"
#include "client/tool/commands.h"
#include "client/tool/session.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/process.h"

namespace talvorn {
namespace {

// The lists are not read more often than this, however many changes there are.
constexpr std::uint32_t kMinGapMs = 100;

class Watcher {
 public:
  explicit Watcher(const ToolOptions& options)
      : options_(options), client_(ClientOptionsOf(options)) {}

  int Run() {
    for (;;) {
      presence_.Renew();
      const ClientStatus status = Look();
      if (status == ClientStatus::kInterrupted || platform::OutputAbandoned()) return kDone;
      TellTrouble(status);
      if (outputStatus_ != kDone) return outputStatus_;

      switch (watch_.Wait(options_.intervalMs, &platform::InterruptRequest())) {
        case ItemWatch::Outcome::kChanged:
          if (InterruptedWithin(kMinGapMs)) return kDone;
          break;
        case ItemWatch::Outcome::kTimeToRead:
          break;
        case ItemWatch::Outcome::kInterrupted:
          return kDone;
      }
    }
  }

 private:
  ClientStatus Look() {
    const auto devices = client_.GetDevices();
    if (!devices) return devices.status;
    const auto items = client_.GetItems();
    if (!items) return items.status;
    TellTrouble(ClientStatus::kOk);

    std::vector<Change> changes = tracker_.UpdateDevices(devices.value);
    std::ranges::move(tracker_.UpdateItems(items.value), std::back_inserter(changes));
    if (first_ && !options_.all) {
      changes.clear();
      if (!options_.json)
        Output(Concat({NowText(), "  watching ", Counted(devices.value.size(), "device"), ", ",
                       Counted(items.value.size(), "item"), "\n"}));
    }
    first_ = false;
    Show(changes);
    return ClientStatus::kOk;
  }

  void Show(const std::vector<Change>& changes) {
    std::string text;
    platform::Clock& clock = platform::SystemClock();
    for (const Change& change : changes) {
      text.append(options_.json ? ChangeJson(change, clock.SystemTime())
                                : ChangeLine(change, clock.LocalTime()));
      text.push_back('\n');
    }
    if (!text.empty()) Output(text);
  }

  // Once per silence, and once when it is over.
  void TellTrouble(ClientStatus status) {
    const bool trouble = status != ClientStatus::kOk;
    if (options_.json && trouble != trouble_)
      Output(Concat({LocatorJson(!trouble, platform::SystemClock().SystemTime()), "\n"}));
    if (trouble && !trouble_) {
      Trouble what = TroubleOf(status);
      Complain(Concat({what.what, ", waiting for it. ", what.advice}));
    } else if (!trouble && trouble_) {
      Complain("the locator answers");
    }
    trouble_ = trouble;
  }

  void Output(const std::string& text) { outputStatus_ = Print(text); }

  static std::string NowText() { return TimeText(platform::SystemClock().LocalTime()); }

  const ToolOptions& options_;
  ClientPresence presence_;
  ItemWatch watch_;
  LocatorClient client_;
  ChangeTracker tracker_;
  bool first_ = true;
  bool trouble_ = false;
  int outputStatus_ = kDone;
};

}  // namespace

int RunWatchCommand(const ToolOptions& options) { return Watcher(options).Run(); }

}  // namespace talvorn
