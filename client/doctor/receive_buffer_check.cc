#include <string>

#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "discovery/datagram.h"
#include "platform/udp_drops.h"

namespace talvorn {

void CheckReceiveBuffers(Examination& examination) {
  constexpr std::string_view kCheck = "receive-buffers";
  const auto drops = platform::UdpReceiveDrops(kDiscoveryPort);
  if (!drops) return;
  if (*drops == 0) return examination.Ok(kCheck, "no datagram was dropped for want of room");
  examination.Warn(kCheck,
                   Concat({"the system has dropped ", std::to_string(*drops),
                           " datagrams, since nobody came to take them"}),
                   "Is this machine overloaded, or does a program flood UDP port 4817?");
}

}  // namespace talvorn
