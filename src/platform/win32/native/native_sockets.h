// Winsock under the names that the code of both systems uses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

using NativeSocket = SOCKET;
using NativeSize = int;  // of addresses and options
using Ipv4PacketInfo = IN_PKTINFO;
using Ipv6PacketInfo = IN6_PKTINFO;
using NativeAddressInfo = ADDRINFOW;

inline const auto GetAddressInfo = &GetAddrInfoW;
inline const auto FreeAddressInfo = &FreeAddrInfoW;
[[nodiscard]] inline std::wstring NativeText(std::u16string_view text) {
  return {text.begin(), text.end()};
}

// Windows needs only the interface's address.
[[nodiscard]] inline ip_mreq Ipv4Membership(in_addr group, in_addr interfaceAddress,
                                            std::uint32_t) {
  return {group, interfaceAddress};
}

}  // namespace talvorn::platform
