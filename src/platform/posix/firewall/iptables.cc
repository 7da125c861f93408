#include <algorithm>
#include <sstream>

#include "platform/posix/firewall/rules.h"

namespace talvorn::platform {
namespace {

using Words = std::vector<std::string>;

Words WordsOf(const std::string& line) {
  std::istringstream stream(line);
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

class Reader {
 public:
  Reader(std::string_view command, const Traffic& traffic) : command_(command), traffic_(traffic) {}

  void Take(const std::string& line) {
    const Words words = WordsOf(line);
    if (line.starts_with('*') && !words.empty()) {
      table_ = words[0].substr(1);
    } else if (line.starts_with(':') && words.size() >= 2) {
      AddChain(words[0].substr(1), words[1]);
    } else if (words.size() > 2 && words[0] == "-A") {
      AddRule(words);
    }
  }

  FilterChains chains{};

 private:
  [[nodiscard]] std::string NameOf(const std::string& chain) const { return table_ + ' ' + chain; }

  void AddChain(const std::string& name, std::string_view policy) {
    FilterChain chain;
    chain.text = "table " + table_ + ", chain " + name;
    chain.openedBy = std::string(command_) + (table_ == "filter" ? "" : " -t " + table_) + " -I " +
                     name + (traffic_.tcp ? " -p tcp" : " -p udp") + " --dport " +
                     std::to_string(traffic_.port) + " -j ACCEPT";
    const bool in = name == "PREROUTING" || name == "INPUT";
    const bool out = name == "OUTPUT" || name == "POSTROUTING";
    chain.begins = traffic_.incoming ? in : out;
    chain.isIpv6Only = command_ == "ip6tables";
    chain.dropsTheRest = policy == "DROP";
    chains[NameOf(name)] = std::move(chain);
  }

  void AddRule(const Words& words) {
    const auto chain = chains.find(NameOf(words[1]));
    if (chain == chains.end()) return;
    FilterRule rule;
    bool negated = false;
    for (std::size_t i = 2; i < words.size(); ++i) {
      if (words[i] == "!") {
        negated = true;
        continue;
      }
      const std::string value = i + 1 < words.size() ? words[i + 1] : "";
      if (!words[i].starts_with('-')) continue;  // a value
      Match match = MatchOf(rule, words[i], value);
      if (negated && match != Match::kMaybe)
        match = match == Match::kYes ? Match::kNo : Match::kYes;
      negated = false;
      rule.match = std::min(rule.match, match);
      if (words[i] == "-j" || words[i] == "-g") SetVerdict(rule, words[i] == "-g", value);
    }
    if (rule.verdict != RuleVerdict::kNone) chain->second.rules.push_back(std::move(rule));
  }

  Match MatchOf(FilterRule& rule, std::string_view option, const std::string& value) const {
    const auto known = [](bool matches) { return matches ? Match::kYes : Match::kNo; };
    if (option == "-p") return known(value == (traffic_.tcp ? "tcp" : "udp") || value == "all");
    if (option == "--dport" || option == "--dports" || option == "--ports") {
      rule.namesPort = true;
      return known(PortIsIn(value, traffic_.port));
    }
    if (option == "-i" || option == "-o") return value == "lo" ? Match::kNo : Match::kMaybe;
    if (option == "--state" || option == "--ctstate") return known(value.find("NEW") != value.npos);
    if (option == "--pkt-type" && !traffic_.tcp) return known(value == "multicast");
    if (option == "--dst-type" && !traffic_.tcp) return known(value == "MULTICAST");
    constexpr std::string_view kSayNothing[] = {
        "-m", "-j", "-g", "--comment", "--reject-with", "--log-prefix"};
    const bool saysNothing =
        std::ranges::find(kSayNothing, option) != std::ranges::end(kSayNothing);
    return saysNothing ? Match::kYes : Match::kMaybe;
  }

  void SetVerdict(FilterRule& rule, bool goesTo, const std::string& target) const {
    using enum RuleVerdict;
    if (target == "ACCEPT") {
      rule.verdict = kAccept;
    } else if (target == "DROP" || target == "REJECT") {
      rule.verdict = kDrop;
    } else if (target == "RETURN") {
      rule.verdict = kReturn;
    } else if (chains.contains(NameOf(target))) {
      rule.verdict = goesTo ? kGoto : kJump;
      rule.target = NameOf(target);
    }
  }

  const std::string_view command_;
  const Traffic& traffic_;
  std::string table_;
};

}  // namespace

FilterChains ChainsOfIptables(std::string_view saved, std::string_view command,
                              const Traffic& traffic) {
  Reader reader(command, traffic);
  std::istringstream lines{std::string(saved)};
  for (std::string line; std::getline(lines, line);) reader.Take(line);
  return std::move(reader.chains);
}

}  // namespace talvorn::platform
