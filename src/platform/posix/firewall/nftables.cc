#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "platform/posix/firewall/rules.h"

namespace talvorn::platform {
namespace {

using Json = nlohmann::json;

// The member of an object, or null: nothing here trusts the shape of what it reads.
const Json& Member(const Json& object, const char* name) {
  static const Json kNone;
  if (!object.is_object()) return kNone;
  const auto found = object.find(name);
  return found == object.end() ? kNone : *found;
}

std::string TextOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : std::string();
}

Match Inverted(Match match) {
  return match == Match::kYes ? Match::kNo : match == Match::kNo ? Match::kYes : match;
}

Match Known(bool matches) { return matches ? Match::kYes : Match::kNo; }

std::string NameOf(const Json& at, const std::string& chain) {
  return TextOf(Member(at, "family")) + ' ' + TextOf(Member(at, "table")) + ' ' + chain;
}

class RuleSet {
 public:
  RuleSet(std::string_view json, const Traffic& traffic) : traffic_(traffic) {
    whole_ = Json::parse(json, nullptr, false);
    const Json& entries = Member(whole_, "nftables");
    if (!entries.is_array()) return;
    for (const Json& entry : entries) Note(entry);
    for (const Json& entry : entries)
      if (const Json& rule = Member(entry, "rule"); rule.is_object()) AddRule(rule);
  }

  FilterChains chains{};

 private:
  // Sets and chains, which rules speak of before or after.
  void Note(const Json& entry) {
    if (const Json& set = Member(entry, "set"); set.is_object())
      sets_['@' + TextOf(Member(set, "name"))] = &Member(set, "elem");
    const Json& chain = Member(entry, "chain");
    if (!chain.is_object()) return;
    const std::string name = TextOf(Member(chain, "name"));
    const std::string table =
        TextOf(Member(chain, "family")) + ' ' + TextOf(Member(chain, "table"));
    FilterChain noted;
    noted.text = "table " + table + ", chain " + name;
    noted.openedBy = "nft insert rule " + table + ' ' + name + (traffic_.tcp ? " tcp" : " udp") +
                     " dport " + std::to_string(traffic_.port) + " accept";
    noted.begins = IsOnTheWay(TextOf(Member(chain, "hook")));
    noted.isIpv6Only = TextOf(Member(chain, "family")) == "ip6";
    noted.dropsTheRest = TextOf(Member(chain, "policy")) == "drop";
    chains[NameOf(chain, name)] = std::move(noted);
  }

  [[nodiscard]] bool IsOnTheWay(std::string_view hook) const {
    constexpr std::array<std::string_view, 3> kIn = {"ingress", "prerouting", "input"};
    constexpr std::array<std::string_view, 3> kOut = {"output", "postrouting", "egress"};
    return std::ranges::find(traffic_.incoming ? kIn : kOut, hook) !=
           (traffic_.incoming ? kIn : kOut).end();
  }

  void AddRule(const Json& from) {
    const auto chain = chains.find(NameOf(from, TextOf(Member(from, "chain"))));
    const Json& statements = Member(from, "expr");
    if (chain == chains.end() || !statements.is_array()) return;
    FilterRule rule;
    for (const Json& statement : statements) {
      if (!statement.is_object() || statement.empty()) {
        Narrow(rule, Match::kMaybe);
        continue;
      }
      if (const Json& vmap = Member(statement, "vmap"); vmap.is_object()) {
        AddVerdictMap(chain->second, rule, from, vmap);
        continue;
      }
      ReadStatement(rule, from, statement);
    }
    if (rule.verdict != RuleVerdict::kNone) chain->second.rules.push_back(std::move(rule));
  }

  void ReadStatement(FilterRule& rule, const Json& from, const Json& statement) {
    constexpr std::array<std::string_view, 6> kWithoutEffect = {"counter", "log",   "mangle",
                                                                "notrack", "quota", "comment"};
    const std::string& kind = statement.begin().key();
    const Json& value = statement.begin().value();
    if (kind == "match") {
      Narrow(rule, MatchOf(rule, Member(value, "left"), Member(value, "right"),
                           TextOf(Member(value, "op"))));
    } else if (!SetVerdict(rule, from, kind, value) &&
               std::ranges::find(kWithoutEffect, kind) == kWithoutEffect.end()) {
      Narrow(rule, Match::kMaybe);
      if (kind == "xt" && TextOf(Member(value, "type")) == "target" &&
          TextOf(Member(value, "name")) == "REJECT")
        rule.verdict = RuleVerdict::kDrop;
    }
  }

  bool SetVerdict(FilterRule& rule, const Json& from, std::string_view kind, const Json& value) {
    if (kind == "accept") {
      rule.verdict = RuleVerdict::kAccept;
    } else if (kind == "drop" || kind == "reject") {
      rule.verdict = RuleVerdict::kDrop;
    } else if (kind == "return") {
      rule.verdict = RuleVerdict::kReturn;
    } else if (kind == "jump" || kind == "goto") {
      rule.verdict = kind == "jump" ? RuleVerdict::kJump : RuleVerdict::kGoto;
      rule.target = NameOf(from, TextOf(Member(value, "target")));
    } else {
      return false;
    }
    return true;
  }

  // A rule for each of its pairs.
  void AddVerdictMap(FilterChain& chain, const FilterRule& soFar, const Json& from,
                     const Json& vmap) {
    const Json& pairs = Member(Member(vmap, "data"), "set");
    if (!pairs.is_array()) return;
    for (const Json& pair : pairs) {
      if (!pair.is_array() || pair.size() != 2 || !pair[1].is_object() || pair[1].empty()) continue;
      FilterRule rule = soFar;
      Narrow(rule, MatchOf(rule, Member(vmap, "key"), pair[0], "=="));
      if (SetVerdict(rule, from, pair[1].begin().key(), pair[1].begin().value()))
        chain.rules.push_back(std::move(rule));
    }
  }

  static void Narrow(FilterRule& rule, Match match) { rule.match = std::min(rule.match, match); }

  Match MatchOf(FilterRule& rule, const Json& left, const Json& right, std::string_view op) {
    if (op != "==" && op != "!=" && op != "in") return Match::kMaybe;
    Match match = Match::kMaybe;
    if (const Json& payload = Member(left, "payload"); payload.is_object()) {
      match = MatchOfPayload(rule, payload, right);
    } else if (const Json& meta = Member(left, "meta"); meta.is_object()) {
      match = MatchOfMeta(TextOf(Member(meta, "key")), right);
    } else if (const Json& ct = Member(left, "ct"); ct.is_object()) {
      // Connections are opened by our side, answers to multicast belong to none, and nothing of
      // it is redirected.
      const std::string key = TextOf(Member(ct, "key"));
      if (key == "state") match = Known(Holds(right, "new"));
      if (key == "status") match = Match::kNo;
    }
    if (TextOf(Member(Member(left, "fib"), "result")) == "type" && !traffic_.tcp)
      match = Known(Holds(right, "multicast"));
    return op == "!=" ? Inverted(match) : match;
  }

  Match MatchOfPayload(FilterRule& rule, const Json& payload, const Json& right) {
    const std::string protocol = TextOf(Member(payload, "protocol"));
    const std::string field = TextOf(Member(payload, "field"));
    const std::string ours = traffic_.tcp ? "tcp" : "udp";
    if (protocol == "th" || protocol == "udp" || protocol == "tcp") {
      if (protocol != "th" && protocol != ours) return Match::kNo;
      if (field != "dport") return Match::kMaybe;
      rule.namesPort = true;
      return Known(HoldsPort(right));
    }
    if (protocol == "icmp" || protocol == "icmpv6") return Match::kNo;
    if (field == "protocol" || field == "nexthdr") return Known(Holds(right, ours));
    return Match::kMaybe;
  }

  Match MatchOfMeta(std::string_view key, const Json& right) const {
    if (key == "l4proto") return Known(Holds(right, traffic_.tcp ? "tcp" : "udp"));
    if (key == "pkttype") return traffic_.tcp ? Match::kMaybe : Known(Holds(right, "multicast"));
    const bool isInterface = key == "iifname" || key == "iif" || key == "oifname" || key == "oif";
    if (isInterface && TextOf(right) == "lo") return Match::kNo;
    return Match::kMaybe;
  }

  // The elements of a set, named or not; a single value stands for itself.
  [[nodiscard]] const Json& ElementsOf(const Json& value) const {
    if (const Json& set = Member(value, "set"); !set.is_null()) return set;
    const auto named = value.is_string() ? sets_.find(value.get<std::string>()) : sets_.end();
    return named == sets_.end() ? value : *named->second;
  }

  template <class Test>
  [[nodiscard]] bool AnyOf(const Json& value, Test test) const {
    const Json& elements = ElementsOf(value);
    if (!elements.is_array()) return test(elements);
    return std::ranges::any_of(elements, [&](const Json& one) {
      const Json& inner = Member(Member(one, "elem"), "val");
      return test(inner.is_null() ? one : inner);
    });
  }

  [[nodiscard]] bool Holds(const Json& value, std::string_view word) const {
    return AnyOf(value, [word](const Json& one) { return one.is_string() && TextOf(one) == word; });
  }

  [[nodiscard]] bool HoldsPort(const Json& value) const {
    const auto isPort = [this](const Json& one) {
      const auto number = [](const Json& from) {
        return from.is_number_unsigned() ? from.get<std::uint64_t>() : ~std::uint64_t{0};
      };
      const Json& range = Member(one, "range");
      if (!range.is_array() || range.size() != 2) return number(one) == traffic_.port;
      return traffic_.port >= number(range[0]) && traffic_.port <= number(range[1]);
    };
    return AnyOf(value, isPort);
  }

  const Traffic& traffic_;
  Json whole_;
  std::map<std::string, const Json*> sets_;  // by "@name"
};

}  // namespace

FilterChains ChainsOfNftables(std::string_view json, const Traffic& traffic) {
  return std::move(RuleSet(json, traffic).chains);
}

}  // namespace talvorn::platform
