#include "discovery/multicast_socket.h"

#include <string>

#include "discovery/datagram.h"
#include "platform/obstacle.h"

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::BindOutcome;
using platform::Socket;
using platform::SocketAddress;

// Ten thousand devices may answer one request within milliseconds.
constexpr std::uint32_t kReceiveBufferBytes = 8 * 1'024 * 1'024;

}  // namespace

bool SendRequest(std::uint32_t interfaceValue, const char* groupText,
                 std::span<const std::byte> request, OwnRequests& ownRequests) {
  const SocketAddress group = SocketAddress::Parse(groupText, kDiscoveryPort);
  const AddressFamily family = group.family();
  Socket socket = Socket::Create(family, platform::SocketType::kDatagram);
  if (!socket.valid()) return false;
  if (!socket.SetMulticastLoopback(false) || !socket.SetMulticastHops(kMulticastHops) ||
      !socket.SetMulticastInterface(interfaceValue)) {
    return false;
  }
  // Its port is known before anybody can hear the request.
  if (family == AddressFamily::kIpv6 &&
      socket.Bind(SocketAddress::Any(family, 0)) == BindOutcome::kBound) {
    ownRequests.NoteSending(interfaceValue, socket.LocalAddress().port());
  }
  return socket.SendTo(request, group) == request.size();
}

bool BindToDiscoveryPort(Socket& socket, AddressFamily family) {
  const std::string port = "UDP port " + std::to_string(kDiscoveryPort);
  switch (socket.Bind(SocketAddress::Any(family, kDiscoveryPort))) {
    case BindOutcome::kBound:
      return true;
    case BindOutcome::kInUse:
      platform::ReportObstacle("another program uses " + port +
                               " exclusively, so that no device can be heard; find it with "
                               "\"ss -ulnp\" and end it.");
      return false;
    case BindOutcome::kForbidden:
      platform::ReportObstacle("this account may not receive on " + port +
                               ", so that no device can be heard; permit it in the system's "
                               "security policy, or start the program as root.");
      return false;
    case BindOutcome::kFailed:
      break;
  }
  return false;
}

std::optional<Socket> OpenReceivingSocket(std::uint32_t interfaceValue, const char* groupText) {
  const SocketAddress group = SocketAddress::Parse(groupText, kDiscoveryPort);
  Socket socket = Socket::CreateReceiver(group.family());
  if (!socket.valid()) return std::nullopt;
  socket.EnlargeReceiveBuffer(kReceiveBufferBytes);
  if (!socket.SetMulticastLoopback(false) || !BindToDiscoveryPort(socket, group.family()) ||
      !socket.JoinGroup(group, interfaceValue)) {
    return std::nullopt;
  }
  return socket;
}

}  // namespace talvorn
