#include "simulator/simulator.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "discovery/datagram.h"
#include "discovery/multicast_socket.h"
#include "platform/clock.h"
#include "platform/network_interfaces.h"
#include "platform/thread.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::BindOutcome;
using platform::NumericHost;
using platform::Socket;
using platform::SocketAddress;
using platform::WaitStatus;

// How long the start waits for IPv6: for a first address to show, and for the system
// to be done with those that it checks for duplicates.
constexpr std::uint64_t kFirstAddressWaitMs = 500;
constexpr std::uint64_t kAddressCheckWaitMs = 5'000;
constexpr std::uint32_t kAddressPollMs = 50;

// Answers sent between two looks at what has come in.
constexpr int kSendBatch = 256;

// A datagram that the system has no room for is tried again once there is some.
constexpr int kSendAttempts = 5;
constexpr std::uint32_t kRoomWaitMs = 500;

bool IsSignalled(const platform::Waitable& waitable) {
  const platform::Waitable* const list[] = {&waitable};
  return platform::WaitForAny(list, 0) == WaitStatus::kSignalled;
}

const char* FamilyName(AddressFamily family) {
  return family == AddressFamily::kIpv6 ? "IPv6" : "IPv4";
}

platform::InterfaceAddresses AwaitAddresses(std::uint32_t interfaceIndex, bool ipv6,
                                            const platform::Waitable& interrupt) {
  const std::uint64_t start = platform::MonotonicMs();
  for (;;) {
    auto addresses = platform::QueryInterfaceAddresses(interfaceIndex);
    const std::uint64_t limit = addresses.ipv6Pending    ? kAddressCheckWaitMs
                                : addresses.ipv6.empty() ? kFirstAddressWaitMs
                                                         : 0;
    if (!ipv6 || platform::MonotonicMs() - start >= limit || IsSignalled(interrupt))
      return addresses;
    platform::SleepMs(kAddressPollMs);
  }
}

std::uint32_t MaskOf(std::uint32_t address) {
  const auto rows = platform::QueryIpv4AddressTable();
  if (!rows) return 0;
  const auto row = std::ranges::find(*rows, address, &platform::Ipv4AddressRow::address);
  return row == rows->end() ? 0 : row->mask;
}

}  // namespace

Simulator::Simulator(const SimulatorOptions& options, Log log)
    : options_(options),
      log_([log = std::move(log), lock = std::make_shared<std::mutex>()](const std::string& line) {
        const std::lock_guard guard(*lock);
        log(line);
      }),
      schedule_({.devices = options.model.devices,
                 .announceMs = options.announceMs,
                 .delayMinMs = options.delayMinMs,
                 .delayMaxMs = options.delayMaxMs,
                 .lossPerMille = options.lossPerMille,
                 .seed = options.model.seed}) {}

std::optional<std::string> Simulator::Open(const platform::Waitable& interrupt) {
  const std::string name = Concat({"'", EscapeForTerminal(options_.interfaceName), "'"});
  const std::uint32_t index = platform::InterfaceIndexFromName(options_.interfaceName.c_str());
  if (index == 0) return Concat({"there is no network interface ", name});

  auto addresses = AwaitAddresses(index, options_.ipv6, interrupt);
  std::ranges::sort(addresses.ipv4, {}, [](std::uint32_t address) {
    return U32BigAt(std::as_bytes(std::span(&address, 1)), 0);
  });
  std::ranges::sort(addresses.ipv6);
  ModelAddresses texts;
  std::vector<Local> ipv4;
  std::vector<Local> ipv6;
  if (options_.ipv4) {
    for (const std::uint32_t address : addresses.ipv4) {
      ipv4.push_back({SocketAddress::Ipv4(address, 0), address});
      texts.ipv4.push_back(platform::Ipv4Text(address));
    }
  }
  if (options_.ipv6) {
    for (const auto& address : addresses.ipv6) {
      ipv6.push_back({SocketAddress::Ipv6(address, index, 0), index});
      texts.ipv6.push_back(NumericHost(SocketAddress::Ipv6(address, 0, 0)));
    }
  }
  if (ipv4.empty() && ipv6.empty()) {
    const char* family = !options_.familyGiven ? "" : options_.ipv4 ? " IPv4" : " IPv6";
    return Concat({"the interface ", name, " has no", family,
                   " address that can be used; give it one and switch it on"});
  }
  model_.emplace(options_.model, std::move(texts));
  startMs_ = platform::MonotonicMs();

  if (options_.statusQuery) {
    if (auto obstacle = OpenStatusServer(ipv4)) return obstacle;
  }
  if (!options_.multicast) return std::nullopt;
  if (!ipv4.empty()) {
    if (auto obstacle = OpenPort(AddressFamily::kIpv4, ipv4)) return obstacle;
  }
  if (!ipv6.empty()) {
    if (auto obstacle = OpenPort(AddressFamily::kIpv6, ipv6)) return obstacle;
  }
  return std::nullopt;
}

std::optional<std::string> Simulator::OpenStatusServer(const std::vector<Local>& locals) {
  const std::string name = Concat({"'", EscapeForTerminal(options_.interfaceName), "'"});
  if (locals.empty()) {
    return Concat({"the interface ", name, " has no IPv4 address for the status query"});
  }
  std::vector<std::uint32_t> addresses;
  for (const Local& local : locals) addresses.push_back(local.address.ipv4());
  statusServer_.emplace(*model_, std::move(addresses), options_.statusFault, log_);
  if (statusServer_->Open() && statusServer_->Start(startMs_)) return std::nullopt;
  return Concat({"no status query can be heard on TCP port ", std::to_string(kStatusPort)});
}

std::optional<std::string> Simulator::OpenPort(AddressFamily family,
                                               const std::vector<Local>& locals) {
  const bool isIpv6 = family == AddressFamily::kIpv6;
  const std::string where =
      Concat({" on '", EscapeForTerminal(options_.interfaceName), "' over ", FamilyName(family)});
  Port port;
  port.family = family;
  port.requestGroup =
      SocketAddress::Parse(isIpv6 ? kRequestGroupIpv6 : kRequestGroupIpv4, kDiscoveryPort);
  port.responseGroup =
      SocketAddress::Parse(isIpv6 ? kResponseGroupIpv6 : kResponseGroupIpv4, kDiscoveryPort);
  port.address = locals.front().address.ipv4();

  port.requests = Socket::CreateReceiver(family);
  if (!port.requests.valid()) return Concat({"no socket can be made", where});
  if (!BindToDiscoveryPort(port.requests, family)) {
    return Concat({"no request can be heard on UDP port ", std::to_string(kDiscoveryPort), where});
  }
  if (!port.requests.JoinGroup(port.requestGroup, locals.front().interfaceValue))
    return Concat({"the group of the requests cannot be joined", where});

  for (const Local& local : locals) {
    Socket sender = Socket::Create(family, platform::SocketType::kDatagram);
    // Loopback, so that a locator on this machine hears announcements too.
    if (!sender.valid() || sender.Bind(local.address) != BindOutcome::kBound ||
        !sender.SetMulticastLoopback(true) || !sender.SetMulticastHops(kMulticastHops) ||
        !sender.SetMulticastInterface(local.interfaceValue)) {
      return Concat({"nothing can be sent from ", NumericHost(local.address), where});
    }
    port.senders.push_back(std::move(sender));
  }
  ports_.push_back(std::move(port));
  return std::nullopt;
}

std::string Simulator::Summary() const {
  std::string families;
  for (const Port& port : ports_)
    families.append(families.empty() ? "" : ", ").append(FamilyName(port.family));
  if (statusServer_) families.append(families.empty() ? "" : ", ").append("status query");
  const std::uint32_t devices = options_.model.devices;
  return Concat({std::to_string(devices), devices == 1 ? " device on " : " devices on ",
                 EscapeForTerminal(options_.interfaceName), " (", families, ")"});
}

void Simulator::Run(const platform::Waitable& interrupt,
                    std::span<const std::vector<std::byte>> fileDatagrams) {
  Multicast(interrupt, fileDatagrams);
  if (!statusServer_) return;
  statusServer_->Stop();
  counts_.statusQueries = statusServer_->queries();
}

void Simulator::Multicast(const platform::Waitable& interrupt,
                          std::span<const std::vector<std::byte>> fileDatagrams) {
  for (Port& port : ports_) {
    const SocketAddress& group =
        options_.fileToRequestGroup ? port.requestGroup : port.responseGroup;
    for (const auto& datagram : fileDatagrams) Send(port.senders.front(), datagram, group);
  }

  std::uint64_t ownRequestDue = 0;
  std::vector<const platform::Waitable*> waitables = {&interrupt};
  for (const Port& port : ports_) waitables.push_back(&port.requests);

  while (!IsSignalled(interrupt)) {
    const std::uint64_t now = platform::MonotonicMs() - startMs_;
    if (options_.endAfterMs && now >= *options_.endAfterMs) return;
    for (Port& port : ports_) HearRequests(port, now);
    const bool more = SendDue(now);
    if (options_.sendRequestMs > 0 && now >= ownRequestDue) {
      SendOwnRequests();
      ownRequestDue += options_.sendRequestMs;
    }
    if (more) continue;

    std::uint64_t next = schedule_.NextDueMs().value_or(UINT64_MAX);
    if (options_.sendRequestMs > 0) next = std::min(next, ownRequestDue);
    if (options_.endAfterMs) next = std::min<std::uint64_t>(next, *options_.endAfterMs);
    platform::WaitLimit limit;
    if (next != UINT64_MAX) limit = static_cast<std::uint32_t>(next > now ? next - now : 0);
    (void)platform::WaitForAny(waitables, limit);  // the next pass looks at everything
  }
}

Simulator::Port* Simulator::FindPort(AddressFamily family) {
  const auto port = std::ranges::find(ports_, family, &Port::family);
  return port == ports_.end() ? nullptr : &*port;
}

void Simulator::HearRequests(Port& port, std::uint64_t nowMs) {
  platform::Datagrams datagrams;
  const std::size_t taken = port.requests.Receive(datagrams).value_or(0);
  for (std::size_t i = 0; i < taken; ++i) {
    const auto datagram = datagrams[i];
    const std::string from = Concat({" from ", NumericHost(datagrams.source(i)), ", ",
                                     std::to_string(datagram.size()), " bytes"});
    if (!AcceptDatagram(datagram, kMagic) || DatagramType(datagram) != kTypeRequest) {
      log_(Concat({"something else than a request", from}));
      continue;
    }
    ++counts_.requestsHeard;
    log_(Concat({"request", from}));
    schedule_.Request(port.family, nowMs);
  }
}

bool Simulator::SendDue(std::uint64_t nowMs) {
  for (int i = 0; i < kSendBatch; ++i) {
    const auto due = schedule_.Take(nowMs);
    if (!due) return false;
    if (!model_->Present(due->device, nowMs)) continue;
    const std::vector<std::byte> answer = model_->Answer(due->device, nowMs);
    if (Port* port = FindPort(due->family)) {
      SendAnswer(*port, due->device, answer);
    } else {
      for (Port& every : ports_) SendAnswer(every, due->device, answer);
    }
  }
  return true;
}

void Simulator::SendAnswer(Port& port, std::uint32_t device, std::span<const std::byte> answer) {
  Send(port.senders[device % port.senders.size()], answer, port.responseGroup);
}

void Simulator::SendOwnRequests() {
  for (Port& port : ports_) {
    DiscoveryRequest request;
    if (port.family == AddressFamily::kIpv4)
      request.interfaceCidr = InterfaceCidr(port.address, MaskOf(port.address));
    request.timestamp = RequestTimestamp(platform::SystemClock().LocalTime());
    Send(port.senders.front(), EncodeDiscoveryRequest(request), port.requestGroup);
    log_(Concat({"own request sent over ", FamilyName(port.family)}));
  }
}

void Simulator::Send(Socket& socket, std::span<const std::byte> datagram,
                     const SocketAddress& destination) {
  for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
    if (socket.SendTo(datagram, destination) == datagram.size()) {
      ++counts_.sent;
      return;
    }
    if (socket.WaitFor(platform::Readiness::kWritable, kRoomWaitMs) == WaitStatus::kFailed) break;
  }
  ++counts_.failed;
}

}  // namespace talvorn
