// Which interface holds an IPv4 address.
#pragma once

#include <cstdint>

namespace talvorn::platform {

// Index of the interface that is up and has `address` (network byte order); 0 when
// there is none or the system does not tell. Of several the one that stands first
// in the address table, so that every caller gets the same.
[[nodiscard]] std::uint32_t InterfaceOfIpv4Address(std::uint32_t address);

}  // namespace talvorn::platform
