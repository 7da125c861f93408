// BSD sockets, by the names under which the code of both systems takes them.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace talvorn::platform {

using NativeSocket = int;
using NativeSize = socklen_t;  // of addresses and options
using Ipv4PacketInfo = in_pktinfo;
using Ipv6PacketInfo = in6_pktinfo;

}  // namespace talvorn::platform
