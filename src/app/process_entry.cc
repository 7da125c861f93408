#include "app/process_entry.h"

#include <array>
#include <string_view>

#include "app/service_loop.h"
#include "exchange/messages/messages.h"
#include "platform/named_object.h"
#include "platform/obstacle.h"
#include "platform/process.h"
#include "platform/terminal_escape.h"
#include "platform/thread.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/event_source.h"
#include "support/interval_timer.h"
#include "support/lifetime.h"
#include "support/run_flag.h"
#include "support/settings.h"
#include "support/thread.h"

namespace talvorn {
namespace {

constexpr std::u16string_view kTracePrefix = u"TALVORNApp: ";
constexpr std::uint32_t kWatchPassMs = 1'000;

// A near miss starts a locator that stays.
void TellPassedOver(std::u16string_view commandLine) {
  std::string sentence = "'";
  sentence.append(platform::EscapeForTerminal(commandLine));
  platform::ReportObstacle(
      sentence.append("' means nothing here and is passed over; only /dynamic does, alone."));
}

class Process {
 public:
  int Run(std::u16string_view commandLine) {
    RegistryValues settings;
    (void)Completed([&] { RetrieveValues(settings); });  // on failure the defaults stand
    (void)Completed([] { DebugTrace().SetEnabled(ReadDebugView()); });
    DebugTrace().SetPrefix(kTracePrefix);
    (void)Completed([&] { ServiceInstanceMutex = platform::NamedMutex::Create(kServiceMutex); });

    const bool dynamic = IsDynamic(commandLine);
    if (dynamic) {
      Trace(u"DYNAMIC\n");
      timeToLive_.period = settings.timeMulticastRequestAllowed;
    } else {
      Trace(u"PERMANENT\n");
      if (!commandLine.empty()) (void)Completed([&] { TellPassedOver(commandLine); });
    }
    const bool started = StartServiceThread();
    if (dynamic) timeToLive_.Start();
    if (started) {
      if (dynamic) {
        WatchClients();
      } else {
        AwaitTermination();
      }
      ServiceInstanceMutex.Close();
      Trace(u"EXIT\n");
    }
    ShutDown(dynamic);
    return 0;
  }

 private:
  bool StartServiceThread() {
    EventSource events;
    OpenEventSource(events, kSourceTalvorn);
    RunVariable.Set();
    ServiceThread = StartThread("service", [this] { return ThreadServiceMain(RunVariable); });
    std::array<char16_t, 1'024> text{};
    FormatTextW(text, u"ThreadServiceMain --> Thread Id = %lu", ServiceThread.id());
    Report(events, EventKind::kInformation, text.data());
    Trace(u"%s", text.data());
    CloseEventSource(events);
    return ServiceThread.valid();
  }

  // Nothing in the process ends the permanent mode.
  static void AwaitTermination() {
    const platform::Waitable* const termination[] = {&platform::TerminationRequest()};
    while (!platform::TerminationRequested()) (void)platform::WaitForAny(termination, std::nullopt);
  }

  // Returns when the time to live has passed without a client.
  void WatchClients() {
    const auto timeToLiveMs = static_cast<std::uint32_t>(timeToLive_.period);
    // Without the timer's event the process lives on like a permanent one.
    const platform::Waitable* const waitables[] = {
        &platform::TerminationRequest(), timeToLive_.event.valid() ? &timeToLive_.event : nullptr};
    bool clientSeen = true;
    for (;;) {
      bool client = false;
      (void)Completed([&] { client = platform::NamedMutex::Open(kClientMutex).valid(); });
      if (client) {
        if (!clientSeen) Trace(u"REVIVED\n");
        clientSeen = true;
        timeToLive_.Restart();
      }
      const platform::WaitStatus status = platform::WaitForAny(waitables, kWatchPassMs);
      if (platform::TerminationRequested() || timeToLive_.event.Test()) return;
      if (status != platform::WaitStatus::kTimeout || client) continue;
      if (clientSeen) {
        clientSeen = false;
        Trace(u"TTL --> %lus     TIMEOUT STARTED\n", timeToLiveMs / 1'000);
      }
      if (const auto seconds = CountdownSeconds(timeToLiveMs, timeToLive_.Elapsed()))
        Trace(u"TTL --> %lus\n", *seconds);
    }
  }

  void ShutDown(bool dynamic) {
    if (dynamic) timeToLive_.Stop();
    ServiceInstanceMutex.Close();
    RunVariable.Clear();
    if (!ServiceThread.valid()) return;
    if (ServiceThread.Join()) {
      Trace(u"Wait for Exit Multicast-Thread OK\n");
    } else {
      Trace(u"Wait for Exit Multicast-Thread Timeout\n");
    }
  }

  RunFlag RunVariable;
  platform::Thread ServiceThread;
  platform::NamedMutex ServiceInstanceMutex;
  CIntervalTimer timeToLive_;
};

}  // namespace

std::optional<std::uint32_t> CountdownSeconds(std::uint32_t timeToLiveMs, std::uint64_t elapsedMs) {
  const std::uint32_t remaining = timeToLiveMs - static_cast<std::uint32_t>(elapsedMs);
  const std::uint32_t seconds = remaining / 1'000;
  if (remaining == timeToLiveMs || (remaining >= 10'000 && seconds % 10 != 0)) return std::nullopt;
  return seconds;
}

int LocatorMain(std::u16string_view commandLine) { return Process().Run(commandLine); }

}  // namespace talvorn
