#include <algorithm>
#include <string>

#include "client/doctor/checks.h"
#include "command_line/concat.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "traffic";

void TellAskers(const Examination& examination, const std::string& interface,
                const HeardOnInterface& heard) {
  if (heard.askers.empty()) return;
  examination.Warn(kCheck,
                   Concat({"on ", interface, " another locator asks, ", Joined(heard.askers, ", "),
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
                             Joined(sources, ", ")}),
                     "Give each device a serial number of its own; only one of them is shown.");
  }
}

// "on eth0 the locator asks, and 3 devices answer"
std::string Summary(const std::string& interface, const HeardOnInterface& heard) {
  const std::size_t count = heard.devices.size();
  return Concat({"on ", interface, heard.asked == true ? " the locator asks, and " : " ",
                 count == 0 ? "no" : std::to_string(count),
                 count > 1 ? " devices answer" : " device answers"});
}

void TellSilence(const Examination& examination, const std::string& interface,
                 const HeardOnInterface& heard) {
  const std::uint32_t period = examination.settings.timeRequest;
  const std::uint32_t listened = RequestRoundMs(examination.settings);
  if (period >= listened) {
    examination.Warn(
        kCheck,
        Concat({"on ", interface, " no device answered within ", std::to_string(listened / 1'000),
                " s, and the locator asks every ", std::to_string(period / 1'000), " s only"}),
        "Run this again, or lower \"Time Request\" for a while.");
  } else if (heard.asked == false && heard.askers.empty()) {
    examination.Fail(kCheck, Concat({"on ", interface, " nobody asks: no request leaves"}),
                     "Another locator may have asked a moment ago; run this again. Else end the "
                     "locator and start it again.");
  } else {
    examination.Fail(kCheck, Summary(interface, heard),
                     "Are devices switched on, and on this network? A switch that filters "
                     "multicast (IGMP snooping) without a querier loses their answers.");
  }
}

}  // namespace

void CheckTraffic(Examination& examination) {
  if (!examination.answers || examination.traffic.heard().empty()) return;
  const std::uint32_t round = RequestRoundMs(examination.settings);
  if (examination.options.onListening) examination.options.onListening(round);
  if (!examination.traffic.ListenFor(round, examination.options.interrupt)) return;
  std::size_t devices = 0;
  for (const auto& [interface, heard] : examination.traffic.heard()) {
    TellAskers(examination, interface, heard);
    TellDoubles(examination, interface, heard);
    devices += heard.devices.size();
  }
  for (const auto& [interface, heard] : examination.traffic.heard()) {
    if (devices > 0 || !examination.devices.empty())
      examination.Ok(kCheck, Summary(interface, heard));
    else
      TellSilence(examination, interface, heard);
  }
}

}  // namespace talvorn
