#include "platform/address_owner.h"

#include <algorithm>

#include "platform/network_interfaces.h"

namespace talvorn::platform {

std::uint32_t InterfaceOfIpv4Address(std::uint32_t address) {
  const auto rows = QueryIpv4AddressTable();
  if (!rows) return 0;
  const auto row = std::ranges::find(*rows, address, &Ipv4AddressRow::address);
  return row == rows->end() ? 0 : row->interfaceIndex;
}

}  // namespace talvorn::platform
