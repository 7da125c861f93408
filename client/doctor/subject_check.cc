#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "discovery/usable_interface.h"
#include "platform/address.h"
#include "platform/foreign_text.h"
#include "platform/network_interfaces.h"
#include "platform/text_encoding.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "device";

std::string Utf8(std::string_view foreign) {
  return platform::WideToUtf8(platform::ForeignToWide(foreign));
}

bool IsSerial(std::string_view subject) {
  return std::ranges::all_of(subject, [](char c) { return c >= '0' && c <= '9'; });
}

// "0000042" is meant by "42".
std::string_view WithoutZeros(std::string_view serial) {
  return serial.substr(std::min(serial.find_first_not_of('0'), serial.size()));
}

// As an address is written here: "FE80:0::1" and "fe80::1%eth0" are "fe80::1". Empty for another
// text.
std::string CanonicalAddress(std::string_view text) {
  const std::string host(text.substr(0, text.find('%')));
  return platform::NumericHost(platform::SocketAddress::Parse(host.c_str(), 0));
}

// Whether the serial, or one of the addresses, is the one that was asked for.
bool IsMeant(std::string_view subject, std::string_view serial,
             const std::set<std::string>& addresses) {
  if (IsSerial(subject)) return WithoutZeros(serial) == WithoutZeros(subject);
  const std::string wanted = CanonicalAddress(subject);
  return !wanted.empty() && std::ranges::any_of(addresses, [&](const std::string& address) {
    return CanonicalAddress(address) == wanted;
  });
}

std::set<std::string> AddressesOf(const DeviceRecord& device) {
  std::set<std::string> addresses{std::string(device.deviceIpv4.view()),
                                  std::string(device.deviceIpv6.view())};
  addresses.erase("");
  return addresses;
}

// On which interface it was heard while we listened; empty for none.
std::string HeardOn(const TrafficListener& traffic, std::string_view subject) {
  for (const auto& [interface, heard] : traffic.heard())
    for (const auto& [serial, sources] : heard.devices)
      if (IsMeant(subject, serial, sources)) return interface;
  return {};
}

// Whether one of our networks holds the IPv4 address.
bool IsNear(std::uint32_t address) {
  const auto rows = platform::QueryIpv4AddressTable();
  return rows && std::ranges::any_of(*rows, [address](const platform::Ipv4AddressRow& row) {
           return IsUsable(row) && (row.address & row.mask) == (address & row.mask);
         });
}

}  // namespace

void CheckSubject(Examination& examination) {
  const std::string& subject = examination.options.subject;
  if (subject.empty()) return;
  const auto known = std::ranges::find_if(examination.devices, [&](const DeviceRecord& device) {
    return IsMeant(subject, device.deviceSerial.view(), AddressesOf(device));
  });
  if (known != examination.devices.end()) {
    examination.Ok(kCheck, Concat({"the locator knows ", subject, ": serial ",
                                   Utf8(known->deviceSerial.view()), ", alias \"",
                                   Utf8(known->deviceAlias.view()), "\", at ",
                                   Utf8(Joined(AddressesOf(*known), " and "))}));
    return;
  }
  if (const std::string interface = HeardOn(examination.traffic, subject); !interface.empty()) {
    examination.Warn(kCheck,
                     Concat({subject, " answers on ", interface,
                             ", but the locator did not know it a moment ago"}),
                     "Ask again; if it stays so, end the locator and start it again.");
    return;
  }
  if (examination.listedAddresses.contains(subject)) {
    examination.Fail(kCheck,
                     Concat({subject, " is a static device that the locator does not know"}),
                     "See what is said of static devices above.");
    return;
  }
  const std::uint32_t address = platform::ParseIpv4(subject.c_str());
  if (!IsSerial(subject) && address != ~std::uint32_t{0} && !IsNear(address)) {
    examination.Fail(kCheck,
                     Concat({"this machine is in no network with ", subject,
                             ", and discovery does not pass routers"}),
                     "List it as a static device.");
    return;
  }
  examination.Fail(kCheck, Concat({subject, " is not heard"}),
                   "Is it switched on, on this network, and does it have this number or address?");
}

}  // namespace talvorn
