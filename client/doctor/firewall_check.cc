#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "discovery/datagram.h"
#include "platform/firewall.h"

namespace talvorn {

void CheckFirewall(Examination& examination) {
  constexpr std::string_view kCheck = "firewall";
  using Extent = platform::FirewallObstacle::Extent;
  const bool hasStaticDevices = examination.settings.staticDevicesIniFile[0] != u'\0';
  const auto firewall = platform::ExamineFirewall(kDiscoveryPort, hasStaticDevices);
  if (!firewall.readable)
    return examination.Ok(kCheck, "the firewall's rules are not known to this account");
  for (const platform::FirewallObstacle& obstacle : firewall.obstacles) {
    if (obstacle.extent == Extent::kWhole)
      examination.Fail(kCheck, obstacle.what, obstacle.advice);
    else if (obstacle.extent == Extent::kPart)
      examination.Warn(kCheck, obstacle.what, obstacle.advice);
    else
      examination.Ok(kCheck, obstacle.what + ", of IPv6 only");
  }
  if (firewall.obstacles.empty())
    examination.Ok(kCheck, Concat({"no rule of the firewall that is known keeps port ",
                                   std::to_string(kDiscoveryPort), " closed"}));
}

}  // namespace talvorn
