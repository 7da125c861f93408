#include "discovery/usable_interface.h"

#include <array>
#include <cstdint>

#include "support/id_octets.h"

namespace talvorn {

bool IsUsable(const platform::Ipv4AddressRow& row) {
  const bool loopback = IdOctets(row.address) == std::array<std::uint8_t, 4>{127, 0, 0, 1};
  return !loopback && (row.type & platform::kIpv4AddressPrimary) != 0;
}

bool IsUsable(const platform::Ipv6Adapter& adapter) {
  constexpr std::uint32_t kLooked = platform::kAdapterIpv6Enabled | platform::kAdapterNoMulticast;
  return adapter.operStatus == platform::kOperStatusUp &&
         (adapter.flags & kLooked) == platform::kAdapterIpv6Enabled &&
         adapter.ifType != platform::kIfTypeSoftwareLoopback;
}

}  // namespace talvorn
