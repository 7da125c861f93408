// metrics: numbers for monitoring. It asks the locator as any client does, and never the network.
#include <chrono>

#include "client/locator_client.h"
#include "client/tool/commands.h"
#include "client/tool/metrics.h"
#include "client/tool/session.h"
#include "devices/status_frame.h"
#include "exchange/messages/messages.h"
#include "platform/clock.h"
#include "platform/named_object.h"
#include "platform/udp_drops.h"

namespace talvorn {
namespace {

std::uint64_t MonotonicMicroseconds() {
  using namespace std::chrono;
  const auto now = steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(floor<microseconds>(now).count());
}

// The locator answers only when it answers everything.
ClientStatus AskLocator(LocatorClient& client, LocatorNumbers& numbers) {
  const std::uint64_t start = MonotonicMicroseconds();
  auto version = client.GetVersion();
  if (!version) return version.status;
  numbers.replyMicroseconds = MonotonicMicroseconds() - start;
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
  numbers.receiveDrops = platform::UdpReceiveDrops(kStatusPort);
  numbers.takenAt = platform::SystemClock().SystemTime();
  const std::string text = MetricsText(numbers);
  return options.outputFile.empty() ? Print(text) : WriteFile(options.outputFile, text);
}

}  // namespace talvorn
