#include "platform/posix/firewall/rules.h"

#include <algorithm>
#include <charconv>

namespace talvorn::platform {
namespace {

// Chains that jump in a circle are none that a system takes.
constexpr int kDeepest = 16;

// The way of the traffic through the rules.
class Walk {
 public:
  explicit Walk(const FilterChains& chains) : chains_(chains) {}

  // kUndecided: dropped here, unless a rule before has accepted it.
  enum class End { kGoesOn, kAccepted, kDropped, kUndecided };

  // `sure`: the traffic comes here for certain.
  End Through(const FilterChain& chain, bool sure, int depth = 0) {
    for (const FilterRule& rule : chain.rules) {
      if (rule.match == Match::kNo) continue;
      const bool certain = sure && rule.match == Match::kYes;
      const End end = Apply(rule, certain, depth);
      if (end != End::kGoesOn) return end;
      if (rule.verdict != RuleVerdict::kReturn && rule.verdict != RuleVerdict::kGoto) continue;
      if (certain) return End::kGoesOn;
      sure = false;  // the traffic may have left this chain
    }
    return End::kGoesOn;
  }

  [[nodiscard]] bool mayBeAccepted() const { return mayBeAccepted_; }
  // Some of it, by a rule that names the port.
  [[nodiscard]] bool mayBeDropped() const { return mayBeDropped_; }

 private:
  End Apply(const FilterRule& rule, bool certain, int depth) {
    switch (rule.verdict) {
      case RuleVerdict::kAccept:
        mayBeAccepted_ = true;
        return certain ? End::kAccepted : End::kGoesOn;
      case RuleVerdict::kDrop:
        if (certain && !mayBeAccepted_) return End::kDropped;
        mayBeDropped_ = mayBeDropped_ || rule.namesPort;
        return certain ? End::kUndecided : End::kGoesOn;
      case RuleVerdict::kJump:
      case RuleVerdict::kGoto: {
        const auto target = chains_.find(rule.target);
        if (target == chains_.end() || depth == kDeepest) return End::kGoesOn;
        return Through(target->second, certain, depth + 1);
      }
      case RuleVerdict::kReturn:
      case RuleVerdict::kNone:
        break;
    }
    return End::kGoesOn;
  }

  const FilterChains& chains_;
  bool mayBeAccepted_ = false;
  bool mayBeDropped_ = false;
};

std::optional<std::uint16_t> PortOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(port)
                                                                  : std::nullopt;
}

}  // namespace

std::string Text(const Traffic& traffic) {
  std::string text = traffic.incoming ? "incoming" : "outgoing";
  return text.append(traffic.tcp ? " TCP " : " UDP ").append(std::to_string(traffic.port));
}

std::vector<FirewallObstacle> ObstaclesIn(const FilterChains& chains, const Traffic& traffic,
                                          std::string_view program) {
  std::vector<FirewallObstacle> obstacles;
  for (const auto& [name, chain] : chains) {
    if (!chain.begins) continue;
    Walk walk(chains);
    const Walk::End end = walk.Through(chain, true);
    const bool byPolicy = end == Walk::End::kGoesOn && chain.dropsTheRest && !walk.mayBeAccepted();
    const bool certain = end == Walk::End::kDropped || byPolicy;
    if (!certain && (end == Walk::End::kAccepted || !walk.mayBeDropped())) continue;
    FirewallObstacle obstacle;
    obstacle.extent = chain.isIpv6Only ? FirewallObstacle::Extent::kIpv6Only
                      : certain        ? FirewallObstacle::Extent::kWhole
                                       : FirewallObstacle::Extent::kPart;
    obstacle.what.append(program)
        .append(byPolicy  ? " has no rule that accepts "
                : certain ? " drops "
                          : " drops some ")
        .append(Text(traffic))
        .append(" (")
        .append(chain.text)
        .append(")");
    obstacle.advice.append("Allow it: ").append(chain.openedBy).append(".");
    obstacles.push_back(std::move(obstacle));
  }
  return obstacles;
}

bool PortIsIn(std::string_view ports, std::uint16_t port) {
  while (!ports.empty()) {
    const std::string_view one = ports.substr(0, ports.find(','));
    ports.remove_prefix(std::min(one.size() + 1, ports.size()));
    const std::size_t colon = one.find(':');
    const auto first = PortOf(one.substr(0, colon));
    const auto last = colon == one.npos ? first : PortOf(one.substr(colon + 1));
    if (first && last && port >= *first && port <= *last) return true;
  }
  return false;
}

}  // namespace talvorn::platform
