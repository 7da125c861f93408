// Rule sets as the system's programs print them, and what they do to our traffic.
#include "platform/posix/firewall/rules.h"

#include <gtest/gtest.h>

#include <string>

namespace talvorn::platform {
namespace {

constexpr Traffic kIn{.incoming = true, .tcp = false, .port = 4817};
constexpr Traffic kOut{.incoming = false, .tcp = false, .port = 4817};
constexpr Traffic kTcp{.incoming = false, .tcp = true, .port = 4817};

// The statements of a rule, in a chain with this policy.
std::string Nftables(const std::string& policy, const std::vector<std::string>& rules,
                     const std::string& more = "") {
  std::string text = R"({"nftables":[{"metainfo":{"version":"1.0.6"}},)"
                     R"({"chain":{"family":"inet","table":"t","name":"c","handle":1,)"
                     R"("type":"filter","hook":"input","prio":0,"policy":")" +
                     policy + R"("}})";
  for (const std::string& rule : rules)
    text +=
        R"(,{"rule":{"family":"inet","table":"t","chain":"c","handle":2,"expr":[)" + rule + "]}}";
  return text + more + "]}";
}

// "FAIL", "warn" or "ok", as the doctor would say.
std::string Judged(const FilterChains& chains, const Traffic& traffic) {
  const auto obstacles = ObstaclesIn(chains, traffic, "nftables");
  if (obstacles.empty()) return "ok";
  return obstacles.front().extent == FirewallObstacle::Extent::kWhole ? "FAIL" : "warn";
}

std::string JudgedIn(const std::string& nftables) {
  return Judged(ChainsOfNftables(nftables, kIn), kIn);
}

const std::string kUdpPort =
    R"({"match":{"op":"==","left":{"payload":{"protocol":"udp","field":"dport"}},"right":)";
const std::string kDrop = R"({"counter":{"packets":0,"bytes":0}},{"drop":null})";
const std::string kAccept = R"({"accept":null})";
const std::string kFromEth =
    R"({"match":{"op":"==","left":{"meta":{"key":"iifname"}},"right":"eth0"}},)";

TEST(FirewallRules, OfNftablesAreFollowedToTheirVerdict) {
  EXPECT_EQ(JudgedIn(Nftables("accept", {})), "ok");
  EXPECT_EQ(JudgedIn(Nftables("drop", {})), "FAIL");
  EXPECT_EQ(JudgedIn(Nftables("accept", {kUdpPort + "4817}}," + kDrop})), "FAIL");
  EXPECT_EQ(JudgedIn(Nftables("accept", {kUdpPort + "4818}}," + kDrop})), "ok");
  EXPECT_EQ(
      JudgedIn(Nftables("accept", {kUdpPort + R"({"set":[53,{"range":[4000,5000]}]}}},)" +
                                   R"({"reject":{"type":"icmp","expr":"port-unreachable"}})"})),
      "FAIL");
  EXPECT_EQ(JudgedIn(Nftables("drop", {kUdpPort + "4817}}," + kAccept})), "ok");
  EXPECT_EQ(
      JudgedIn(Nftables("accept", {kUdpPort + "4817}}," + kAccept, kUdpPort + "4817}}," + kDrop})),
      "ok");
  // What is about some interface may be about another one.
  EXPECT_EQ(JudgedIn(Nftables("accept", {kFromEth + kUdpPort + "4817}}," + kDrop})), "warn");
  EXPECT_EQ(JudgedIn(Nftables("accept", {kFromEth + kDrop})), "ok");
  EXPECT_EQ(JudgedIn(Nftables("drop", {kFromEth + kAccept})), "ok");
  EXPECT_EQ(JudgedIn(Nftables("accept", {kFromEth + kAccept, kDrop})), "ok");
  EXPECT_EQ(JudgedIn(Nftables("accept", {kFromEth + kAccept, kUdpPort + "4817}}," + kDrop})),
            "warn");
}

// As two usual front ends of the firewall make them: what zone or rule opens the port for some
// interface does so behind a jump, before everything else is refused.
TEST(FirewallRules, OfFrontEndsAreUnderstood) {
  const auto zones = [](const std::string& opened) {
    return Nftables(
        "accept",
        {R"({"match":{"op":"in","left":{"ct":{"key":"state"}},"right":["established","related"]}},)" +
             kAccept,
         R"({"match":{"op":"in","left":{"ct":{"key":"status"}},"right":"dnat"}},)" + kAccept,
         R"({"match":{"op":"==","left":{"meta":{"key":"iifname"}},"right":"lo"}},)" + kAccept,
         R"({"jump":{"target":"zones"}})",
         R"({"reject":{"type":"icmpx","expr":"admin-prohibited"}})"},
        R"(,{"chain":{"family":"inet","table":"t","name":"zones","handle":8}})"
        R"(,{"chain":{"family":"inet","table":"t","name":"public","handle":9}})"
        R"(,{"rule":{"family":"inet","table":"t","chain":"zones","expr":[)" +
            kFromEth +
            R"({"goto":{"target":"public"}}]}})"
            R"(,{"rule":{"family":"inet","table":"t","chain":"public","expr":[)" +
            kUdpPort + opened + "}}," + kAccept + "]}}");
  };
  EXPECT_EQ(JudgedIn(zones("4817")), "ok");
  EXPECT_EQ(JudgedIn(zones("5353")), "FAIL");

  const auto chained = [](const std::string& opened) {
    const std::string saved =
        "*filter\n:INPUT DROP [0:0]\n:not-local - [0:0]\n:user - [0:0]\n:log - [0:0]\n"
        "-A INPUT -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT\n"
        "-A INPUT -j not-local\n-A INPUT -j user\n"
        "-A not-local -m addrtype --dst-type LOCAL -j RETURN\n"
        "-A not-local -m addrtype --dst-type MULTICAST -j RETURN\n"
        "-A not-local -m limit --limit 3/min --limit-burst 10 -j log\n-A not-local -j DROP\n"
        "-A user " +
        opened + " -j ACCEPT\nCOMMIT\n";
    return Judged(ChainsOfIptables(saved, "iptables", kIn), kIn);
  };
  EXPECT_EQ(chained("-p udp -m udp --dport 4817"), "ok");
  EXPECT_EQ(chained("-i eth0 -p udp -m udp --dport 4817"), "ok");
  EXPECT_EQ(chained("-p udp -m udp --dport 5353"), "FAIL");
}

TEST(FirewallRules, OfNftablesKnowStatesSetsMapsAndOtherChains) {
  const std::string established =
      R"({"match":{"op":"in","left":{"ct":{"key":"state"}},"right":["established","related"]}},)";
  EXPECT_EQ(JudgedIn(Nftables("drop", {established + kAccept})), "FAIL");
  EXPECT_EQ(JudgedIn(Nftables("accept",
                              {R"({"vmap":{"key":{"ct":{"key":"state"}},"data":{"set":[)"
                               R"(["established",{"accept":null}],["new",{"drop":null}]]}}})"})),
            "FAIL");
  EXPECT_EQ(JudgedIn(Nftables(
                "drop", {kUdpPort + R"("@ports"}},)" + kAccept},
                R"(,{"set":{"family":"inet","name":"ports","table":"t","type":"inet_service",)"
                R"("elem":[22,{"elem":{"val":4817,"comment":"x"}}]}})")),
            "ok");
  EXPECT_EQ(
      JudgedIn(Nftables("accept",
                        {R"({"match":{"op":"==","left":{"meta":{"key":"l4proto"}},"right":"udp"}},)"
                         R"({"jump":{"target":"more"}})"},
                        R"(,{"chain":{"family":"inet","table":"t","name":"more","handle":3}})"
                        R"(,{"rule":{"family":"inet","table":"t","chain":"more","expr":[)" +
                            kUdpPort + "4817}}," + kDrop + "]}}")),
      "FAIL");
  // A chain that jumps to itself.
  EXPECT_EQ(JudgedIn(Nftables("accept", {R"({"jump":{"target":"c"}})"})), "ok");
}

TEST(FirewallRules, OfNftablesMayHaveAnyShape) {
  for (const std::string text :
       {"", "{", "[]", "{\"nftables\":7}", R"({"nftables":[7,{"rule":{}},{"chain":[]}]})"})
    EXPECT_EQ(JudgedIn(text), "ok") << text;
  const std::vector<std::string> statements = {"7",
                                               "{}",
                                               R"({"match":7})",
                                               R"({"match":{"op":"=="}})",
                                               R"({"vmap":{"data":{"set":[7,[1],[1,{}]]}}},7)",
                                               kUdpPort + "{}}}",
                                               kUdpPort + R"({"range":["a",-1]}}})",
                                               kUdpPort + "-4817}}"};
  for (const std::string& statement : statements)
    EXPECT_EQ(JudgedIn(Nftables("accept", {statement + "," + kDrop})), "ok") << statement;
}

TEST(FirewallRules, OfIptablesAreFollowedToTheirVerdict) {
  const auto judged = [](const std::string& rules, const Traffic& traffic,
                         const std::string& policy = "ACCEPT") {
    const std::string saved = "# Generated by iptables-save v1.8.9\n*filter\n:INPUT " + policy +
                              " [0:0]\n:OUTPUT ACCEPT [0:0]\n:extra - [0:0]\n" + rules + "COMMIT\n";
    return Judged(ChainsOfIptables(saved, "iptables", traffic), traffic);
  };
  EXPECT_EQ(judged("-A INPUT -p udp -m udp --dport 4817 -j DROP\n", kIn), "FAIL");
  EXPECT_EQ(judged("-A INPUT -p udp -m udp --dport 4817 -j DROP\n", kOut), "ok");
  EXPECT_EQ(judged("-A INPUT ! -i lo -p udp -m multiport --dports 22,4800:4900 -j REJECT "
                   "--reject-with icmp-port-unreachable\n",
                   kIn),
            "FAIL");
  EXPECT_EQ(judged("-A INPUT -i lo -j ACCEPT\n-A INPUT -m state --state RELATED,ESTABLISHED -j "
                   "ACCEPT\n-A INPUT -p tcp -m tcp --dport 22 -j ACCEPT\n",
                   kIn, "DROP"),
            "FAIL");
  EXPECT_EQ(judged("-A INPUT -d 224.0.0.0/4 -j ACCEPT\n", kIn, "DROP"), "ok");
  EXPECT_EQ(judged("-A INPUT -s 10.0.0.0/8 -p udp -m udp --dport 4817 -j DROP\n", kIn), "warn");
  EXPECT_EQ(judged("-A OUTPUT -j extra\n-A extra -p tcp -m tcp ! --dport 443 -j DROP\n", kTcp),
            "FAIL");
  EXPECT_EQ(judged("-A OUTPUT -j extra\n-A extra -p tcp -m tcp ! --dport 443 -j DROP\n", kOut),
            "ok");
}

TEST(FirewallRules, SayWhatDoesItAndHowToAllowIt) {
  const auto obstacles = ObstaclesIn(ChainsOfNftables(Nftables("drop", {}), kIn), kIn, "nftables");
  ASSERT_EQ(obstacles.size(), 1U);
  EXPECT_EQ(obstacles[0].what,
            "nftables has no rule that accepts incoming UDP 4817 (table inet t, chain c)");
  EXPECT_EQ(obstacles[0].advice, "Allow it: nft insert rule inet t c udp dport 4817 accept.");
}

}  // namespace
}  // namespace talvorn::platform
