#include "client/doctor/traffic_listener.h"

#include <algorithm>
#include <span>
#include <utility>

#include "discovery/datagram.h"
#include "discovery/multicast_socket.h"
#include "platform/clock.h"

namespace talvorn {
namespace {

bool IsRequest(std::span<const std::byte> datagram) {
  return AcceptDatagram(datagram, kMagic) && DatagramType(datagram) == kTypeRequest;
}

}  // namespace

std::uint32_t RequestRoundMs(const RegistryValues& settings) {
  constexpr std::uint32_t kAnswerMs = 1'000;    // devices take a moment
  constexpr std::uint32_t kLongestMs = 60'000;  // nobody waits longer, whatever is set
  return std::min(settings.timeRequest, kLongestMs - kAnswerMs) + kAnswerMs;
}

TrafficListener::TrafficListener() : libraryStarted_(platform::StartSocketLibrary()) {}

TrafficListener::~TrafficListener() {
  ears_.clear();
  if (libraryStarted_) platform::StopSocketLibrary();
}

bool TrafficListener::Listen(const std::string& interface, platform::AddressFamily family,
                             std::uint32_t value) {
  const bool ipv6 = family == platform::AddressFamily::kIpv6;
  auto requests = OpenReceivingSocket(value, ipv6 ? kRequestGroupIpv6 : kRequestGroupIpv4);
  auto answers = OpenReceivingSocket(value, ipv6 ? kResponseGroupIpv6 : kResponseGroupIpv4);
  if (!requests || !answers) return false;
  const bool seen = departing_.valid();
  heard_.try_emplace(interface,
                     HeardOnInterface{.asked = seen ? std::optional(false) : std::nullopt});
  ears_.push_back({std::move(*requests), interface, false});
  ears_.push_back({std::move(*answers), interface, true});
  return true;
}

bool TrafficListener::ListenFor(std::uint32_t milliseconds, const platform::Waitable* interrupt) {
  constexpr std::uint32_t kPauseMs = 50;
  const platform::Waitable* const interrupts[] = {interrupt};
  const std::uint64_t start = platform::MonotonicMs();
  for (;;) {
    TakeWhatCameIn();
    TakeWhatDeparted();
    if (platform::MonotonicMs() - start >= milliseconds) return true;
    if (platform::WaitForAny(interrupts, kPauseMs) != platform::WaitStatus::kTimeout) return false;
  }
}

void TrafficListener::TakeWhatCameIn() {
  platform::Datagrams datagrams;
  for (Ear& ear : ears_) {
    for (bool more = true; more;) {
      const std::size_t taken = ear.socket.Receive(datagrams).value_or(0);
      for (std::size_t i = 0; i < taken; ++i) Take(ear, datagrams[i], datagrams.source(i));
      more = taken == platform::Datagrams::kMost;
    }
  }
}

void TrafficListener::TakeWhatDeparted() {
  for (const platform::DepartingDatagram& datagram : departing_.Take()) {
    const auto heard = heard_.find(datagram.interface);
    if (heard != heard_.end() && IsRequest(datagram.payload)) heard->second.asked = true;
  }
}

void TrafficListener::Take(const Ear& ear, std::span<const std::byte> datagram,
                           const platform::SocketAddress& source) {
  HeardOnInterface& heard = heard_[ear.interface];
  if (!ear.hearsAnswers) {
    if (IsRequest(datagram) && !own_.contains(source.host()))
      heard.askers.insert(NumericHost(source));
  } else if (AcceptDatagram(datagram, kMagic) && IsAnswer(datagram)) {
    const DeviceRecord record = DecodeAnswer(datagram);
    heard.devices[std::string(record.deviceSerial.view())].insert(NumericHost(source));
  }
}

}  // namespace talvorn
