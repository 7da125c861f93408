#include "discovery/own_requests.h"

#include <algorithm>

namespace talvorn {

using platform::AddressFamily;
using platform::HostAddress;

void OwnRequests::SetAddresses(AddressFamily family, std::vector<HostAddress> addresses) {
  std::ranges::sort(addresses);
  const std::lock_guard guard(lock_);
  (family == AddressFamily::kIpv6 ? ipv6_ : ipv4_).swap(addresses);
  if (family != AddressFamily::kIpv6) return;
  std::erase_if(ports_, [this](const auto& sent) {
    return std::ranges::find(ipv6_, sent.first, &HostAddress::scope) == ipv6_.end();
  });
}

void OwnRequests::NoteSending(std::uint32_t interfaceIndex, std::uint16_t port) {
  const std::lock_guard guard(lock_);
  LastPorts& ports = ports_[interfaceIndex];
  std::shift_right(ports.begin(), ports.end(), 1);
  ports.front() = port;
}

bool OwnRequests::Sent(const platform::SocketAddress& source) const {
  const HostAddress host = source.host();
  const std::lock_guard guard(lock_);
  const auto& addresses = source.family() == AddressFamily::kIpv6 ? ipv6_ : ipv4_;
  auto own = std::ranges::lower_bound(addresses, host.bytes, {}, &HostAddress::bytes);
  for (; own != addresses.end() && own->bytes == host.bytes; ++own) {
    if (own->scope == host.scope || LeftFrom(own->scope, source.port())) return true;
  }
  return false;
}

bool OwnRequests::LeftFrom(std::uint32_t interfaceIndex, std::uint16_t port) const {
  const auto sent = ports_.find(interfaceIndex);
  return sent != ports_.end() && std::ranges::find(sent->second, port) != sent->second.end();
}

}  // namespace talvorn
