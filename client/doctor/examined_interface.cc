#include "client/doctor/examined_interface.h"

#include <utility>

#include "discovery/usable_interface.h"
#include "platform/address.h"
#include "support/settings.h"

namespace talvorn {
namespace {

using platform::HostAddress;
using platform::InterfaceDescription;

bool HasAddress(const InterfaceDescription& description) {
  const auto addresses = platform::QueryInterfaceAddresses(description.index);
  return !addresses.ipv4.empty() || !addresses.ipv6.empty() || addresses.ipv6Pending;
}

}  // namespace

std::vector<ExaminedInterface> ExamineInterfaces(bool ipv6Active) {
  const auto rows = platform::QueryIpv4AddressTable();
  const auto adapters = platform::QueryIpv6Adapters();
  std::vector<ExaminedInterface> all;
  for (InterfaceDescription& one : platform::DescribeInterfaces()) {
    ExaminedInterface examined{.description = std::move(one)};
    const std::uint32_t index = examined.description.index;
    for (const auto& row : rows.value_or(std::vector<platform::Ipv4AddressRow>{}))
      if (row.interfaceIndex == index && IsUsable(row)) examined.ipv4.push_back(row.address);
    for (const auto& adapter : adapters.value_or(std::vector<platform::Ipv6Adapter>{}))
      if (adapter.ipv6IfIndex == index && IsUsable(adapter)) examined.ipv6 = ipv6Active;
    all.push_back(std::move(examined));
  }
  return all;
}

std::vector<ExaminedInterface> ExamineInterfaces() {
  RegistryValues settings;
  (void)RetrieveValues(settings);
  return ExamineInterfaces(settings.ipv6Active != 0);
}

std::string UsedAddresses(const ExaminedInterface& interface) {
  std::string text;
  for (const std::uint32_t address : interface.ipv4)
    text.append(text.empty() ? "" : " ").append(platform::Ipv4Text(address));
  if (interface.ipv6) text.append(text.empty() ? "IPv6" : " IPv6");
  return text;
}

ReasonUnused WhyUnused(const InterfaceDescription& description) {
  if (!description.up)
    return {" is down: switched off, or without a cable", "Switch it on, or plug the cable in."};
  if (!description.multicast)
    return {" carries no multicast", "Switch multicast on for it in the system's settings."};
  if (!HasAddress(description)) return {" has no address", "Give it one, or look at DHCP."};
  return {" has no address that can be used yet", "Wait until the system has checked it."};
}

void KnowOwnAddresses(TrafficListener& traffic, const ExaminedInterface& interface) {
  const std::uint32_t index = interface.description.index;
  const auto addresses = platform::QueryInterfaceAddresses(index);
  for (const std::uint32_t address : addresses.ipv4) traffic.KnowAsOwn(HostAddress::Ipv4(address));
  for (const auto& address : addresses.ipv6) traffic.KnowAsOwn(HostAddress::Ipv6(address, index));
}

bool ListenOn(TrafficListener& traffic, const ExaminedInterface& interface) {
  const std::string& name = interface.description.name;
  bool heard = true;
  for (const std::uint32_t address : interface.ipv4)
    heard = traffic.Listen(name, platform::AddressFamily::kIpv4, address) && heard;
  if (!interface.ipv6) return heard;
  return traffic.Listen(name, platform::AddressFamily::kIpv6, interface.description.index) && heard;
}

std::map<std::string, HeardOnInterface> HearOn(std::span<const ExaminedInterface> interfaces,
                                               std::uint32_t milliseconds,
                                               const platform::Waitable* interrupt) {
  TrafficListener traffic;
  for (const ExaminedInterface& one : interfaces) {
    KnowOwnAddresses(traffic, one);
    (void)ListenOn(traffic, one);
  }
  (void)traffic.ListenFor(milliseconds, interrupt);
  return traffic.heard();
}

}  // namespace talvorn
