// What the firewall of this machine does to the traffic of one port.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace talvorn::platform {

// A rule that keeps traffic away. UTF-8; names of rules and chains as they came.
struct FirewallObstacle {
  enum class Extent {
    kWhole,
    kPart,      // perhaps not ours
    kIpv6Only,  // which devices do without as long as there is IPv4
  };

  std::string what;    // a sentence without a full stop
  std::string advice;  // with one
  Extent extent = Extent::kWhole;
};

struct FirewallExamination {
  bool readable = false;  // this account may read the rules, and there is a firewall to ask
  std::vector<FirewallObstacle> obstacles{};
};

// Multicast datagrams to the port in both directions, and where `withTcp` connections to it.
[[nodiscard]] FirewallExamination ExamineFirewall(std::uint16_t port, bool withTcp);

}  // namespace talvorn::platform
