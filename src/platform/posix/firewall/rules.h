// Rules of a packet filter, as far as they are about one kind of traffic.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/firewall.h"

namespace talvorn::platform {

// The traffic that is asked about. Its addresses and interfaces are not said: what depends on
// them may match.
struct Traffic {
  bool incoming = true;
  bool tcp = false;        // else UDP to a multicast group
  std::uint16_t port = 0;  // that it goes to
};

[[nodiscard]] std::string Text(const Traffic& traffic);  // "incoming UDP 4817"

enum class Match { kNo, kMaybe, kYes };

enum class RuleVerdict { kNone, kAccept, kDrop, kReturn, kJump, kGoto };

struct FilterRule {
  Match match = Match::kYes;
  bool namesPort = false;  // the port itself is one of its conditions
  RuleVerdict verdict = RuleVerdict::kNone;
  std::string target{};  // kJump, kGoto
};

struct FilterChain {
  std::string text{};      // "table inet filter, chain input"
  std::string openedBy{};  // the command that lets the traffic through
  bool begins = false;     // the system hands it the traffic
  bool dropsTheRest = false;
  bool isIpv6Only = false;  // which most devices do without
  std::vector<FilterRule> rules{};
};

// By their names; those of one table may be jumped to from it only, so that names have the table
// in them.
using FilterChains = std::map<std::string, FilterChain>;

// What in each chain that begins keeps the traffic away: at most one obstacle each. `program`:
// "nftables".
[[nodiscard]] std::vector<FirewallObstacle> ObstaclesIn(const FilterChains& chains,
                                                        const Traffic& traffic,
                                                        std::string_view program);

// From what `nft --json list ruleset` prints. Empty for what is none.
[[nodiscard]] FilterChains ChainsOfNftables(std::string_view json, const Traffic& traffic);

// From what iptables-save prints; `command` is "iptables" or "ip6tables".
[[nodiscard]] FilterChains ChainsOfIptables(std::string_view saved, std::string_view command,
                                            const Traffic& traffic);

// How a list of ports and ranges is about the traffic: "22,4000:5000".
[[nodiscard]] bool PortIsIn(std::string_view ports, std::uint16_t port);

}  // namespace talvorn::platform
