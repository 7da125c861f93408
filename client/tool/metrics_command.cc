// metrics: numbers for monitoring. It asks the locator as any client does, and the network never;
// it may listen there.
#include "client/doctor/examined_interface.h"
#include "client/locator_client.h"
#include "client/stopwatch.h"
#include "client/tool/commands.h"
#include "client/tool/metrics.h"
#include "client/tool/session.h"
#include "devices/status_frame.h"
#include "exchange/messages/messages.h"
#include "platform/clock.h"
#include "platform/named_object.h"
#include "platform/process.h"
#include "platform/process_list.h"
#include "platform/udp_drops.h"

namespace talvorn {
namespace {

// The locator answers only when it answers everything.
ClientStatus AskLocator(LocatorClient& client, LocatorNumbers& numbers) {
  const Stopwatch watch;
  auto version = client.GetVersion();
  if (!version) return version.status;
  numbers.replyMicroseconds = watch.microseconds();
  numbers.version = std::move(version.value);

  const auto devices = client.GetDevices();
  if (!devices) return devices.status;
  numbers.devices = CountDevices(devices.value);

  const auto items = client.GetItems();
  if (!items) return items.status;
  numbers.items = items.value.size();
  return ClientStatus::kOk;
}

}  // namespace

int RunMetricsCommand(const ToolOptions& options) {
  LocatorClient client(ClientOptionsOf(options));
  LocatorNumbers locator;
  const ClientStatus status = AskLocator(client, locator);
  if (status == ClientStatus::kInterrupted) return kDone;

  FleetNumbers numbers;
  if (status == ClientStatus::kOk) {
    numbers.locator = std::move(locator);
  } else {
    Complain(TroubleOf(status));  // which is no failure of this command: the numbers tell it
  }
  numbers.locatorPresent =
      numbers.locator.has_value() || platform::NamedMutex::Open(kServiceMutex).valid();
  numbers.locators = platform::RunningPrograms(kLocatorProgram).size();
  if (options.listenMs > 0) {
    numbers.heard = HearOn(ExamineInterfaces(), options.listenMs, &platform::InterruptRequest());
    if (Interrupted()) return kDone;
  }
  numbers.receiveDrops = platform::UdpReceiveDrops(kStatusPort);
  numbers.takenAt = platform::SystemClock().SystemTime();
  const std::string text = MetricsText(numbers);
  return options.outputFile.empty() ? Print(text) : WriteFile(options.outputFile, text);
}

}  // namespace talvorn
