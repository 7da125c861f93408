// The socket recipes of discovery: sending a request through one interface, and
// receiving one group on one interface. An interface is its IPv4 address in network
// byte order, or its IPv6 interface index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "discovery/own_requests.h"
#include "platform/socket.h"

namespace talvorn {

// Sends one datagram to `groupText`, port 4817, on a socket of its own, and tells
// `ownRequests` first. True only if all of it was sent.
bool SendRequest(std::uint32_t interfaceValue, const char* groupText,
                 std::span<const std::byte> request, OwnRequests& ownRequests);

// Binds a receiver to the wildcard address and port 4817. Without the port nothing is ever
// heard, and nothing else says so: a person is told why, where the reason is known.
bool BindToDiscoveryPort(platform::Socket& socket, platform::AddressFamily family);

// A socket that receives `groupText` on one interface; none on failure.
std::optional<platform::Socket> OpenReceivingSocket(std::uint32_t interfaceValue,
                                                    const char* groupText);

}  // namespace talvorn
