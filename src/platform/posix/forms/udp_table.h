// The kernel's table of UDP sockets, as text: /proc/net/udp and udp6.
#pragma once

#include <cstdint>
#include <string_view>

namespace talvorn::platform {

// The sum of the last column, "drops", over the lines whose local address has this port. What
// is no such line counts nothing.
[[nodiscard]] std::uint64_t DropsInUdpTable(std::string_view table, std::uint16_t port);

}  // namespace talvorn::platform
