// The discovery datagrams: requests, and what a receiver accepts. Pure code; the
// sockets are in multicast_socket.h.
//
// Every datagram begins with a header of 16 bytes: `length` (big-endian), `magic`
// ("TALVORN" and a NUL), `type` (three digits and a NUL). A request is 43 bytes:
//
//   offset width field
//        0     4 length, 43
//        4     8 magic
//       12     4 type "000"
//       16    19 interfaceCidr  "192.168.1.10/24"; all zero on an IPv6 interface
//       35     8 timestamp      seconds since 1970 of the sender's local time
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "devices/device_record.h"
#include "support/file_time.h"
#include "support/fixed_text.h"

namespace talvorn {

// Administratively scoped groups: IPv4 local scope (RFC 2365), IPv6 admin-local
// scope (RFC 4291).
inline constexpr char kRequestGroupIpv4[] = "239.255.240.1";
inline constexpr char kResponseGroupIpv4[] = "239.255.240.2";
inline constexpr char kRequestGroupIpv6[] = "ff04:4817::1";
inline constexpr char kResponseGroupIpv6[] = "ff04:4817::2";
inline constexpr std::uint16_t kDiscoveryPort = 4817;
inline constexpr std::uint8_t kMulticastHops = 64;

inline constexpr std::size_t kDatagramHeaderSize = 16;
inline constexpr std::size_t kDiscoveryRequestSize = 43;

struct DiscoveryRequest {
  FixedText<19> interfaceCidr;
  std::uint32_t timestamp = 0;  // the upper half of the field is always zero
};

[[nodiscard]] std::array<std::byte, kDiscoveryRequestSize> EncodeDiscoveryRequest(
    const DiscoveryRequest& request);

// One bits at the top of a mask in network byte order, up to the first zero bit.
[[nodiscard]] int PrefixLength(std::uint32_t mask);

// "192.168.1.10/24" from an address and a mask in network byte order.
[[nodiscard]] FixedText<19> InterfaceCidr(std::uint32_t address, std::uint32_t mask);

// Seconds since 1970 of a local time, modulo 2^32.
[[nodiscard]] std::uint32_t RequestTimestamp(FileTime localTime);

// Whether a datagram is one of ours: at least 4 bytes, a length field of at least 16,
// and the magic. Bytes beyond the datagram count as zero.
[[nodiscard]] bool AcceptDatagram(std::span<const std::byte> datagram, std::string_view magic);

// Whether an accepted datagram is a device's answer, and its record in whichever layout.
[[nodiscard]] bool IsAnswer(std::span<const std::byte> datagram);
[[nodiscard]] DeviceRecord DecodeAnswer(std::span<const std::byte> datagram);

// The first three characters of the type.
[[nodiscard]] std::string DatagramType(std::span<const std::byte> datagram);

}  // namespace talvorn
