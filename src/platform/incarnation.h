// Tells an address or interface that was made anew from the one that was there before.
#pragma once

#include <algorithm>
#include <cstdint>

namespace talvorn::platform {

// Another number for another interface or time of creation, but for a chance of 1 in 2^32; never
// 0.
[[nodiscard]] inline std::uint32_t Incarnation(std::uint32_t interfaceIndex,
                                               std::uint64_t created) {
  std::uint64_t hash = std::uint64_t{interfaceIndex} << 32 ^ created;
  hash = (hash ^ hash >> 33) * 0xFF51AFD7ED558CCDu;
  hash = (hash ^ hash >> 33) * 0xC4CEB9FE1A85EC53u;
  return std::max(static_cast<std::uint32_t>(hash ^ hash >> 33), std::uint32_t{1});
}

}  // namespace talvorn::platform
