#include "platform/firewall.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "platform/posix/firewall/rules.h"
#include "platform/posix/program_output.h"

namespace talvorn::platform {
namespace {

// What the programs that know the rules have printed; empty for one that is not there.
struct PrintedRules {
  std::string nftables;
  std::string iptables;
  std::string ip6tables;
};

// What nftables says already, iptables would often say again: its rules are kept there.
std::vector<FirewallObstacle> ObstaclesTo(const Traffic& traffic, const PrintedRules& rules) {
  auto obstacles = ObstaclesIn(ChainsOfNftables(rules.nftables, traffic), traffic, "nftables");
  if (!obstacles.empty()) return obstacles;
  obstacles =
      ObstaclesIn(ChainsOfIptables(rules.iptables, "iptables", traffic), traffic, "iptables");
  auto more =
      ObstaclesIn(ChainsOfIptables(rules.ip6tables, "ip6tables", traffic), traffic, "ip6tables");
  std::ranges::move(more, std::back_inserter(obstacles));
  return obstacles;
}

}  // namespace

FirewallExamination ExamineFirewall(std::uint16_t port, bool withTcp) {
  if (geteuid() != 0) return {};
  const std::array<std::string, 3> listed = {"--json", "list", "ruleset"};
  const auto nftables = OutputOf("nft", listed);
  const auto iptables = OutputOf("iptables-save", {});
  const auto ip6tables = OutputOf("ip6tables-save", {});
  FirewallExamination examination;
  examination.readable = nftables || iptables || ip6tables;
  const PrintedRules rules = {nftables.value_or(""), iptables.value_or(""), ip6tables.value_or("")};
  for (const Traffic& traffic : {Traffic{.incoming = true, .tcp = false, .port = port},
                                 Traffic{.incoming = false, .tcp = false, .port = port},
                                 Traffic{.incoming = false, .tcp = true, .port = port}}) {
    if (traffic.tcp && !withTcp) continue;
    auto found = ObstaclesTo(traffic, rules);
    std::ranges::move(found, std::back_inserter(examination.obstacles));
  }
  return examination;
}

}  // namespace talvorn::platform
