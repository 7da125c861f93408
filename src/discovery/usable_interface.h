// Which interfaces discovery uses.
#pragma once

#include "platform/network_interfaces.h"

namespace talvorn {

// An IPv4 address other than 127.0.0.1, the first that its interface has in its network.
[[nodiscard]] bool IsUsable(const platform::Ipv4AddressRow& row);

// An IPv6 interface that is up, carries multicast and is not loopback.
[[nodiscard]] bool IsUsable(const platform::Ipv6Adapter& adapter);

}  // namespace talvorn
