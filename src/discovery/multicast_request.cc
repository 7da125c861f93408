#include "discovery/multicast_request.h"

#include <array>
#include <string_view>

#include "discovery/datagram.h"
#include "discovery/multicast_receiver.h"
#include "discovery/multicast_socket.h"
#include "discovery/pass_pacer.h"
#include "discovery/retry_pace.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/id_octets.h"
#include "support/interval_timer.h"
#include "support/settings.h"

namespace talvorn {

std::mutex MulticastSetupLock;

namespace {

constexpr std::uint32_t kTickMs = 1;

struct Groups {
  const char* request;
  const char* response;
};
constexpr Groups kGroupsIpv4{kRequestGroupIpv4, kResponseGroupIpv4};
constexpr Groups kGroupsIpv6{kRequestGroupIpv6, kResponseGroupIpv6};

class RequestThread {
 public:
  RequestThread(const ThreadItem& item, Clock& clock)
      : item_(item), clock_(clock), groups_(item.ipVersion == 6 ? kGroupsIpv6 : kGroupsIpv4) {
    if (item.ipVersion == 4) request_.interfaceCidr = InterfaceCidr(item.id, item.mask);
    // Once, since a receiver reads them while the other one is still to be opened.
    requestReceiver_.ownRequests = item.ownRequests;
    responseReceiver_.responseList = item.responseList;
    responseReceiver_.itemList = item.itemList;
  }

  void Run() {
    Start();
    PassPacer pacer(kTickMs);
    while (item_.running) {
      (void)Completed([this] { Pass(); });
      AwaitNextPass(pacer);
    }
    End();
  }

 private:
  void Start() {
    retry_.Begin();
    const bool sent = OpenEventSource(castRequest_, kSourceCastRequest);
    const bool heard = OpenEventSource(castReceive_, kSourceCastReceive);
    canReport_ = sent && heard;
    RegistryValues settings;
    (void)Completed([&] { RetrieveValues(settings); });  // or the defaults stand
    requestTimer_.period = settings.timeRequest;
    masterTimer_.period = settings.timeMaster;
    bool complete = !canReport_;
    if (canReport_) {
      if (settings.timeMulticastRequestAllowed == 0) (void)Completed([this] { Send(); });
      (void)Completed([&] { complete = OpenReceivers(); });
    }
    requestTimer_.Start();
    masterTimer_.Start();
    if (complete && Works(requestTimer_) && Works(masterTimer_)) retry_.End();
  }

  // Those that are not open yet. One that cannot be opened leaves its half of the thread
  // deaf until the next try.
  bool OpenReceivers() {
    const std::lock_guard guard(MulticastSetupLock);
    if (!requestReceiver_.thread.valid() && !responseReceiver_.thread.valid())
      joined_ = item_.incarnation;
    const bool requests = requestReceiver_.thread.valid() ||
                          OpenReceiver(requestReceiver_, item_.id, groups_.request);
    const bool responses = responseReceiver_.thread.valid() ||
                           OpenReceiver(responseReceiver_, item_.id, groups_.response);
    return requests && responses;
  }

  static bool Works(const CIntervalTimer& timer) {
    return timer.event.valid() && timer.thread.valid();
  }

  static void StartAnew(CIntervalTimer& timer) {
    timer.Stop();
    timer.Start();
  }

  // Tries again, without a word, what the system had nothing for.
  void TryAgain() {
    retry_.Begin();
    const bool complete = !canReport_ || OpenReceivers();
    if (!Works(masterTimer_)) StartAnew(masterTimer_);
    if (!Works(requestTimer_)) {
      StartAnew(requestTimer_);
      requestTimer_.event.Set();
    }
    if (complete && Works(requestTimer_) && Works(masterTimer_)) retry_.End();
  }

  void Pass() {
    const bool changed = item_.networkChanged.Test();
    if (item_.incarnation != joined_) Rejoin();
    if (retry_.Due() || (changed && retry_.waits())) TryAgain();
    if (responseReceiver_.dataEvent.Test()) TraceResponse();
    if (requestReceiver_.dataEvent.Test()) FallSilent();
    if (firstPass_) {
      firstPass_ = false;
      master_ = true;
      requestTimer_.event.Set();
    } else if (!master_) {
      master_ = masterTimer_.event.Test();
      return;
    }
    if (requestTimer_.event.Test()) {
      masterTimer_.Restart();
      Send();
    }
  }

  void AwaitNextPass(PassPacer& pacer) {
    // The timer that does not count now keeps its event set until it does.
    const platform::Waitable* const waitables[] = {
        &item_.running.cleared(), &item_.networkChanged, &responseReceiver_.dataEvent,
        &requestReceiver_.dataEvent, master_ ? &requestTimer_.event : &masterTimer_.event};
    (void)pacer.AwaitNextPass(waitables, retry_.TimeLeft());  // whatever ended it, a pass is due
  }

  void Rejoin() {
    joined_ = item_.incarnation;
    requestReceiver_.rejoinEvent.Set();
    responseReceiver_.rejoinEvent.Set();
  }

  void TraceResponse() {
    const auto octet = IdOctets(item_.id);
    Trace(u"Multicast response received from network interface: %u.%u.%u.%u", octet[0], octet[1],
          octet[2], octet[3]);
  }

  // Another locator asks on this network.
  void FallSilent() {
    requestTimer_.Restart();
    masterTimer_.Restart();
    master_ = false;
    const auto octet = IdOctets(item_.id);
    std::array<char16_t, 1'024> text{};
    FormatTextW(text, u"Multicast request received from network interface: %u.%u.%u.%u", octet[0],
                octet[1], octet[2], octet[3]);
    Report(castReceive_, EventKind::kInformation, text.data());
    Trace(u"%s", text.data());
  }

  void Send() {
    request_.timestamp = RequestTimestamp(clock_.LocalTime());
    if (SendRequest(item_.id, groups_.request, EncodeDiscoveryRequest(request_),
                    *item_.ownRequests))
      ReportRequestSent(item_.ipVersion, item_.id, castRequest_);
  }

  void End() {
    requestTimer_.Stop();
    masterTimer_.Stop();
    StopReceiver(requestReceiver_);
    StopReceiver(responseReceiver_);
    CloseEventSource(castRequest_);
    CloseEventSource(castReceive_);
  }

  const ThreadItem& item_;
  Clock& clock_;
  const Groups groups_;
  DiscoveryRequest request_;
  MulticastReceiver requestReceiver_;
  MulticastReceiver responseReceiver_;
  CIntervalTimer requestTimer_{clock_};
  CIntervalTimer masterTimer_{clock_};
  EventSource castRequest_;
  EventSource castReceive_;
  RetryPace retry_;  // of whatever is missing
  bool canReport_ = false;
  std::uint32_t joined_ = 0;  // the incarnation that the receivers joined on
  bool firstPass_ = true;
  bool master_ = false;
};

}  // namespace

std::uint32_t ThreadMulticastRequest(const ThreadItem& item) {
  return ThreadMulticastRequest(item, platform::SystemClock());
}

std::uint32_t ThreadMulticastRequest(const ThreadItem& item, Clock& clock) {
  RequestThread(item, clock).Run();
  return 0;
}

void ReportRequestSent(std::uint32_t ipVersion, std::uint32_t id, const EventSource& source) {
  std::array<char16_t, 70> text{};
  if (ipVersion == 6) {
    FormatTextW(text, u"Multicast request sent from network IPv6 interface: %u", id);
  } else {
    const auto octet = IdOctets(id);
    FormatTextW(text, u"Multicast request sent from network IPv4interface: %u.%u.%u.%u", octet[0],
                octet[1], octet[2], octet[3]);
  }
  Report(source, EventKind::kInformation, text.data());
  Trace(u"%s", text.data());
}

}  // namespace talvorn
