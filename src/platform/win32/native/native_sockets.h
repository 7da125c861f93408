// Winsock, by the names under which the code of both systems takes it.
#pragma once

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

using NativeSocket = SOCKET;
using NativeSize = int;  // of addresses and options
using Ipv4PacketInfo = IN_PKTINFO;
using Ipv6PacketInfo = IN6_PKTINFO;

}  // namespace talvorn::platform
