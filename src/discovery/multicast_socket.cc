#include "discovery/multicast_socket.h"

#include <array>

#include "discovery/datagram.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

using platform::AddressFamily;
using platform::ResolveAddress;
using platform::ResolvedAddress;
using platform::Socket;
using platform::SocketAddress;
using platform::SocketType;

// Ten thousand devices may answer one request within milliseconds.
constexpr std::uint32_t kReceiveBufferBytes = 8 * 1'024 * 1'024;

std::optional<ResolvedAddress> ResolvePort(const char* host, const platform::ResolveHints& hints) {
  std::array<char, 8> service{};
  FormatTextA(service, "%d", int{kDiscoveryPort});
  return ResolveAddress(host, service.data(), hints);
}

}  // namespace

bool SendRequest(std::uint32_t interfaceValue, const char* groupText,
                 std::span<const std::byte> request, OwnRequests& ownRequests) {
  const auto group = ResolvePort(groupText, {.numericHost = true, .type = SocketType::kDatagram});
  if (!group) return false;
  Socket socket = Socket::Create(group->family, group->type);
  if (!socket.valid()) return false;
  if (!socket.SetMulticastLoopback(false) || !socket.SetMulticastHops(kMulticastHops) ||
      !socket.SetMulticastInterface(interfaceValue)) {
    return false;
  }
  // Its port is known before anybody can hear the request.
  if (group->family == AddressFamily::kIpv6 && socket.Bind(SocketAddress::Ipv6({}, 0, 0))) {
    ownRequests.NoteSending(interfaceValue, socket.LocalAddress().port());
  }
  return socket.SendTo(request, group->address) == request.size();
}

std::optional<Socket> OpenReceivingSocket(std::uint32_t interfaceValue, const char* groupText) {
  const auto group = ResolvePort(groupText, {.numericHost = true});
  if (!group) return std::nullopt;
  const auto wildcard = ResolvePort(
      nullptr, {.passive = true, .family = group->family, .type = SocketType::kDatagram});
  if (!wildcard) return std::nullopt;
  Socket socket = Socket::Create(wildcard->family, wildcard->type);
  if (!socket.valid()) return std::nullopt;
  socket.EnlargeReceiveBuffer(kReceiveBufferBytes);
  if (!socket.SetMulticastLoopback(false) || !socket.SetReuseAddress() ||
      !socket.Bind(wildcard->address) || !socket.JoinGroup(group->address, interfaceValue)) {
    return std::nullopt;
  }
  return socket;
}

}  // namespace talvorn
