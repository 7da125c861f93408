#include "app/service_loop.h"

#include <algorithm>
#include <string_view>

#include "app/interface_watch.h"
#include "devices/item_list.h"
#include "devices/response_list.h"
#include "devices/static_devices.h"
#include "discovery/multicast_request.h"
#include "exchange/command_server.h"
#include "platform/network_interfaces.h"
#include "platform/socket.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/event_source.h"
#include "support/interval_timer.h"
#include "support/settings.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kRefreshPeriodMs = 10'000;
// A pause of 0 would leave no time for anything else on the machine.
constexpr std::uint32_t kShortestPauseMs = 10;
constexpr std::u16string_view kTerminated = u"Service loop terminated";

// Every long-lived component. They are destroyed in the reverse order, after
// ShutDown has ended their threads.
class Service {
 public:
  explicit Service(const RunFlag& running) : RunVariable(running) {}

  void Run() {
    StartUp();
    while (RunVariable) Pass();
    ShutDown();
  }

 private:
  void StartUp() {
    if (OpenEventSource(events_, kSourceTalvorn)) Announce(u"Application started!");
    if (!platform::StartSocketLibrary()) AnnounceFailure(u"StartWindowsSocketAPI() failed");
    bool retrieved = false;
    (void)Completed([&] { retrieved = RetrieveValues(settings_); });
    if (!retrieved) AnnounceFailure(u"Registry RetrieveValues() failed");
    if (!responses_.Start(settings_.timeResponseValid))
      AnnounceFailure(u"ResponseList Start() failed");
    if (!items_.Start(settings_.timeResponseValid)) AnnounceFailure(u"ItemList Start() failed");
    staticDevices_.responses = &responses_;
    staticDevices_.items = &items_;
    if (!StartStaticDevices(staticDevices_)) AnnounceFailure(u"DeviceByHostName Start() failed");
    exchange_.responseList = &responses_;
    exchange_.itemList = &items_;
    if (!StartExchange(exchange_)) AnnounceFailure(u"Exchange Start() failed");
    if (RunVariable) {
      Announce(u"Service loop entry");
    } else {
      AnnounceFailure(u"Service loop RUN-VARIABLE FALSE");
    }
    RefreshTimer.period = kRefreshPeriodMs;
    RefreshTimer.Start();
  }

  // Each of the looks is lost by itself where there is no memory for it.
  void Pass() {
    if (RefreshTimer.event.Test()) (void)Completed([this] { Refresh(); });
    Pause();
    if (settings_.ipv6Active != 0)
      (void)Completed([this] { watch_.WatchIpv6Interfaces(platform::QueryIpv6Adapters()); });
    (void)Completed([this] { watch_.WatchIpv4Interfaces(platform::QueryIpv4AddressTable()); });
  }

  void Refresh() {
    Trace(u"REFRESH REGINFO");
    DebugTrace().SetEnabled(ReadDebugView());
    RefreshTimer.Restart();
  }

  void Pause() {
    const platform::Waitable* const cleared[] = {&RunVariable.cleared()};
    (void)platform::WaitForAny(cleared, std::max(settings_.timeNetworkChanges, kShortestPauseMs));
  }

  // Producers end before the reader of the lists, and both before the lists.
  void ShutDown() {
    RefreshTimer.Stop();
    Report(events_, EventKind::kWarning, kTerminated);
    Trace(u"%s", kTerminated);
    watch_.ShutDownIpv4();
    watch_.ShutDownIpv6();
    StopExchange(exchange_);
    StopStaticDevices(staticDevices_);
    Trace(u"ResponseList Stop");
    responses_.Stop();
    Trace(u"ItemList Stop");
    items_.Stop();
    platform::StopSocketLibrary();
    Trace(u"%s", kTerminated);
    CloseEventSource(events_);
  }

  void Announce(std::u16string_view text) {
    Report(events_, EventKind::kInformation, text);
    Trace(u"%s", text);
  }
  void AnnounceFailure(std::u16string_view text) {
    Report(events_, EventKind::kError, text);
    Trace(u"%s", text);
  }

  const RunFlag& RunVariable;
  RegistryValues settings_;
  EventSource events_;
  CResponseList responses_;
  CItemList items_;
  StaticDeviceContext staticDevices_;
  ExchangeContext exchange_;
  CIntervalTimer RefreshTimer;
  InterfaceWatch watch_{events_, responses_, items_, ThreadMulticastRequest, RunVariable};
};

}  // namespace

std::uint32_t ThreadServiceMain(const RunFlag& RunVariable) {
  Service(RunVariable).Run();
  return 0;
}

}  // namespace talvorn
