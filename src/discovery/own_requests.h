// Tells this locator's own requests, which come in where two of its interfaces share a
// network, from those of another locator. The service thread says which addresses the
// machine has, the request threads say what they send, any thread may ask.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "platform/address.h"

namespace talvorn {

class OwnRequests {
 public:
  // All unicast addresses of one family, in place of those of the last look. Before the
  // request threads of a new interface start.
  void SetAddresses(platform::AddressFamily family, std::vector<platform::HostAddress> addresses);

  // Before a request leaves an IPv6 interface from `port`.
  void NoteSending(std::uint32_t interfaceIndex, std::uint16_t port);

  // Whether a request from `source`, whose scope is where it came in, is our own. A
  // link-local address of ours that comes in on another interface is ours only with
  // the port of a request that just left: it may be somebody else's on that link.
  [[nodiscard]] bool Sent(const platform::SocketAddress& source) const;

 private:
  // More than leave an interface while a receiver is late.
  using LastPorts = std::array<std::uint16_t, 4>;

  [[nodiscard]] bool LeftFrom(std::uint32_t interfaceIndex, std::uint16_t port) const;

  mutable std::mutex lock_;
  std::vector<platform::HostAddress> ipv4_;  // sorted, as ipv6_
  std::vector<platform::HostAddress> ipv6_;
  std::map<std::uint32_t, LastPorts> ports_;  // by interface index, the newest first
};

}  // namespace talvorn
