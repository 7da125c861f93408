#include <algorithm>
#include <string>

#include "client/doctor/checks.h"
#include "command_line/concat.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "traffic";
std::string Joined(const std::set<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all.append(all.empty() ? "" : ", ").append(text);
  return all;
}

void TellAskers(const Examination& examination, const std::string& interface,
                const HeardOnInterface& heard) {
  if (heard.askers.empty()) return;
  examination.Warn(kCheck,
                   Concat({"on ", interface, " another locator asks, ", Joined(heard.askers),
                           "; this machine's keeps silent meanwhile"}),
                   "Fine as long as devices answer it; else end it, or lower \"Time Master\".");
}

void TellDoubles(const Examination& examination, const std::string& interface,
                 const HeardOnInterface& heard) {
  for (const auto& [serial, sources] : heard.devices) {
    // One device has an address of each family.
    const auto isIpv6 = [](const std::string& address) {
      return address.find(':') != std::string::npos;
    };
    const auto ipv6 = static_cast<std::size_t>(std::ranges::count_if(sources, isIpv6));
    if (ipv6 < 2 && sources.size() - ipv6 < 2) continue;
    examination.Warn(kCheck,
                     Concat({"on ", interface, " several devices call themselves ", serial, ": ",
                             Joined(sources)}),
                     "Give each device a serial number of its own; only one of them is shown.");
  }
}

}  // namespace

void CheckTraffic(Examination& examination) {
  if (!examination.answers || examination.traffic.heard().empty()) return;
  if (!examination.traffic.ListenFor(RequestRoundMs(examination.settings),
                                     examination.options.interrupt))
    return;
  std::size_t devices = 0;
  for (const auto& [interface, heard] : examination.traffic.heard()) {
    TellAskers(examination, interface, heard);
    TellDoubles(examination, interface, heard);
    devices += heard.devices.size();
  }
  for (const auto& [interface, heard] : examination.traffic.heard()) {
    const std::size_t count = heard.devices.size();
    if (count > 0) {
      examination.Ok(kCheck, Concat({"on ", interface, " ", std::to_string(count),
                                     count == 1 ? " device answers" : " devices answer"}));
    } else if (devices > 0 || !examination.devices.empty()) {
      examination.Ok(kCheck, Concat({"on ", interface, " no device answers"}));
    } else {
      examination.Fail(kCheck, Concat({"on ", interface, " no device answers"}),
                       "Are devices switched on, and on this network? A switch that filters "
                       "multicast (IGMP snooping) without a querier loses their answers.");
    }
  }
}

}  // namespace talvorn
