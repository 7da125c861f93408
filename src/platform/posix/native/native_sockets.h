// BSD sockets, by the names under which the code of both systems takes them.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/text_encoding.h"

namespace talvorn::platform {

using NativeSocket = int;
using NativeSize = socklen_t;  // of addresses and options
using Ipv4PacketInfo = in_pktinfo;
using Ipv6PacketInfo = in6_pktinfo;
using NativeAddressInfo = addrinfo;

inline constexpr auto* GetAddressInfo = getaddrinfo;
inline constexpr auto* FreeAddressInfo = freeaddrinfo;
[[nodiscard]] inline std::string NativeText(std::u16string_view text) { return WideToUtf8(text); }

// On the interface of that index, where it is known.
[[nodiscard]] inline ip_mreqn Ipv4Membership(in_addr group, in_addr interfaceAddress,
                                             std::uint32_t interfaceIndex) {
  return {group, interfaceAddress, static_cast<int>(interfaceIndex)};
}

}  // namespace talvorn::platform
