// What the system counts of datagrams that arrived and found no room.
#pragma once

#include <cstdint>
#include <optional>

namespace talvorn::platform {

// Datagrams dropped by the UDP sockets that are bound to `port` at this moment, whoever owns
// them, over both versions of IP. What a socket has counted goes when it is closed. None where
// the system does not tell, as Windows never does.
[[nodiscard]] std::optional<std::uint64_t> UdpReceiveDrops(std::uint16_t port);

}  // namespace talvorn::platform
