#include <algorithm>
#include <string>
#include <vector>

#include "client/doctor/checks.h"
#include "client/doctor/examined_interface.h"
#include "command_line/concat.h"
#include "discovery/datagram.h"
#include "platform/address.h"

namespace talvorn {
namespace {

using platform::HostAddress;

constexpr std::string_view kCheck = "interfaces";

void TellUnused(const Examination& examination, const ExaminedInterface& one, bool othersAreUsed) {
  const ReasonUnused reason = WhyUnused(one.description);
  std::string what = one.description.name + std::string(reason.what);
  if (othersAreUsed)
    examination.Ok(kCheck, what + ", and is not used");
  else
    examination.Fail(kCheck, what, std::string(reason.advice));
}

void TellMissingGroups(const Examination& examination, const ExaminedInterface& one) {
  const auto look = [&](const char* group, std::string_view again) {
    HostAddress host = platform::SocketAddress::Parse(group, 0).host();
    host.scope = 0;
    if (std::ranges::find(one.description.groups, host) != one.description.groups.end()) return;
    examination.Fail(
        kCheck, Concat({"the locator does not listen to ", group, " on ", one.description.name}),
        std::string(again));
  };
  for (const std::uint32_t address : one.ipv4) {
    const std::string again =
        Concat({"Run: talvorn reinit ", platform::Ipv4Text(address), " (as administrator)."});
    look(kRequestGroupIpv4, again);
    look(kResponseGroupIpv4, again);
  }
  if (!one.ipv6) return;
  look(kRequestGroupIpv6, "End the locator and start it again.");
  look(kResponseGroupIpv6, "End the locator and start it again.");
}

}  // namespace

void CheckInterfaces(Examination& examination) {
  const std::vector<ExaminedInterface> all =
      ExamineInterfaces(examination.settings.ipv6Active != 0);
  const bool anyUsed = std::ranges::any_of(all, &ExaminedInterface::used);
  // Where the system tells of no group at all, it tells nothing of ours.
  const bool groupsAreTold = std::ranges::any_of(
      all, [](const ExaminedInterface& one) { return !one.description.groups.empty(); });
  bool any = false;
  for (const ExaminedInterface& one : all) {
    KnowOwnAddresses(examination.traffic, one);
    if (one.description.loopback && !one.used()) continue;
    any = true;
    if (!one.used()) {
      TellUnused(examination, one, anyUsed);
      continue;
    }
    examination.Ok(kCheck, Concat({one.description.name, " is used: ", UsedAddresses(one)}));
    if (examination.answers && groupsAreTold) TellMissingGroups(examination, one);
  }
  if (!any)
    examination.Fail(kCheck, "this machine has no network interface", "Look at its network card.");

  if (!examination.answers) return;
  for (const ExaminedInterface& one : all) {
    if (ListenOn(examination.traffic, one)) continue;
    examination.Warn(kCheck, Concat({"nothing can be heard on ", one.description.name}),
                     "Look for a program that has UDP port 4817 for itself, or a security policy "
                     "that forbids it.");
  }
}

}  // namespace talvorn
