// The four bytes of an interface value in memory order: for an IPv4 address in
// network byte order these are the numbers of its dotted text.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace talvorn {

[[nodiscard]] inline std::array<std::uint8_t, 4> IdOctets(std::uint32_t id) {
  return std::bit_cast<std::array<std::uint8_t, 4>>(id);
}

}  // namespace talvorn
