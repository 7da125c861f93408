#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "discovery/datagram.h"
#include "discovery/usable_interface.h"
#include "platform/network_interfaces.h"

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::HostAddress;
using platform::InterfaceDescription;

constexpr std::string_view kCheck = "interfaces";

// An interface with what discovery uses of it.
struct Examined {
  InterfaceDescription description;
  std::vector<std::uint32_t> ipv4;  // usable addresses, network byte order
  bool ipv6 = false;

  [[nodiscard]] bool used() const { return !ipv4.empty() || ipv6; }
};

std::vector<Examined> ExamineAll(bool ipv6Active) {
  const auto rows = platform::QueryIpv4AddressTable();
  const auto adapters = platform::QueryIpv6Adapters();
  std::vector<Examined> all;
  for (InterfaceDescription& one : platform::DescribeInterfaces()) {
    Examined examined{.description = std::move(one), .ipv4 = {}};
    const std::uint32_t index = examined.description.index;
    for (const auto& row : rows.value_or(std::vector<platform::Ipv4AddressRow>{}))
      if (row.interfaceIndex == index && IsUsable(row)) examined.ipv4.push_back(row.address);
    for (const auto& adapter : adapters.value_or(std::vector<platform::Ipv6Adapter>{}))
      if (adapter.ipv6IfIndex == index && IsUsable(adapter)) examined.ipv6 = ipv6Active;
    all.push_back(std::move(examined));
  }
  return all;
}

bool HasAddress(const InterfaceDescription& description) {
  const auto addresses = platform::QueryInterfaceAddresses(description.index);
  return !addresses.ipv4.empty() || !addresses.ipv6.empty() || addresses.ipv6Pending;
}

struct Reason {
  std::string_view what;
  std::string_view advice;
};

Reason WhyUnused(const InterfaceDescription& description) {
  if (!description.up)
    return {" is down: switched off, or without a cable", "Switch it on, or plug the cable in."};
  if (!description.multicast)
    return {" carries no multicast", "Switch multicast on for it in the system's settings."};
  if (!HasAddress(description)) return {" has no address", "Give it one, or look at DHCP."};
  return {" has no address that can be used yet", "Wait until the system has checked it."};
}

std::string UseOf(const Examined& examined) {
  std::string text = examined.description.name + " is used:";
  for (const std::uint32_t address : examined.ipv4)
    text.append(" ").append(platform::Ipv4Text(address));
  return examined.ipv6 ? text + " IPv6" : text;
}

void TellUnused(const Examination& examination, const Examined& one, bool othersAreUsed) {
  const Reason reason = WhyUnused(one.description);
  std::string what = one.description.name + std::string(reason.what);
  if (othersAreUsed)
    examination.Ok(kCheck, what + ", and is not used");
  else
    examination.Fail(kCheck, what, std::string(reason.advice));
}

void TellMissingGroups(const Examination& examination, const Examined& one) {
  const auto look = [&](const char* group, std::string_view again) {
    HostAddress host = platform::SocketAddress::Parse(group, 0).host();
    host.scope = 0;
    if (std::ranges::find(one.description.groups, host) != one.description.groups.end()) return;
    examination.Fail(
        kCheck, Concat({"the locator does not listen to ", group, " on ", one.description.name}),
        std::string(again));
  };
  for (const std::uint32_t address : one.ipv4) {
    const std::string again =
        Concat({"Run: talvorn reinit ", platform::Ipv4Text(address), " (as administrator)."});
    look(kRequestGroupIpv4, again);
    look(kResponseGroupIpv4, again);
  }
  if (!one.ipv6) return;
  look(kRequestGroupIpv6, "End the locator and start it again.");
  look(kResponseGroupIpv6, "End the locator and start it again.");
}

void KnowOwnAddresses(TrafficListener& traffic, std::uint32_t index) {
  const auto addresses = platform::QueryInterfaceAddresses(index);
  for (const std::uint32_t address : addresses.ipv4) traffic.KnowAsOwn(HostAddress::Ipv4(address));
  for (const auto& address : addresses.ipv6) traffic.KnowAsOwn(HostAddress::Ipv6(address, index));
}

}  // namespace

void CheckInterfaces(Examination& examination) {
  const std::vector<Examined> all = ExamineAll(examination.settings.ipv6Active != 0);
  const bool anyUsed = std::ranges::any_of(all, &Examined::used);
  // Where the system tells of no group at all, it tells nothing of ours.
  const bool groupsAreTold =
      std::ranges::any_of(all, [](const Examined& one) { return !one.description.groups.empty(); });
  bool any = false;
  for (const Examined& one : all) {
    KnowOwnAddresses(examination.traffic, one.description.index);
    if (one.description.loopback && !one.used()) continue;
    any = true;
    if (!one.used()) {
      TellUnused(examination, one, anyUsed);
      continue;
    }
    examination.Ok(kCheck, UseOf(one));
    if (examination.answers && groupsAreTold) TellMissingGroups(examination, one);
  }
  if (!any)
    examination.Fail(kCheck, "this machine has no network interface", "Look at its network card.");

  if (!examination.answers) return;
  for (const Examined& one : all) {
    bool heard = true;
    for (const std::uint32_t address : one.ipv4)
      heard =
          examination.traffic.Listen(one.description.name, AddressFamily::kIpv4, address) && heard;
    if (one.ipv6)
      heard = examination.traffic.Listen(one.description.name, AddressFamily::kIpv6,
                                         one.description.index) &&
              heard;
    if (heard) continue;
    examination.Warn(kCheck, Concat({"nothing can be heard on ", one.description.name}),
                     "Look for a program that has UDP port 4817 for itself, or a security policy "
                     "that forbids it.");
  }
}

}  // namespace talvorn
