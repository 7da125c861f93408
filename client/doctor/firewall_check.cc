#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "discovery/datagram.h"
#include "platform/firewall.h"

namespace talvorn {

void CheckFirewall(Examination& examination) {
  constexpr std::string_view kCheck = "firewall";
  const auto firewall = platform::ExamineFirewall(kDiscoveryPort);
  if (!firewall.readable)
    return examination.Ok(kCheck, "the firewall's rules are not known to this account");
  for (const platform::FirewallObstacle& obstacle : firewall.obstacles) {
    if (obstacle.certain)
      examination.Fail(kCheck, obstacle.what, obstacle.advice);
    else
      examination.Warn(kCheck, obstacle.what, obstacle.advice);
  }
  if (firewall.obstacles.empty())
    examination.Ok(kCheck, Concat({"no rule of the firewall that is known keeps port ",
                                   std::to_string(kDiscoveryPort), " closed"}));
}

}  // namespace talvorn
