// The machine's network interfaces. Any thread may ask at any time: on Linux the tables are read
// again only after the kernel has told of a change.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/address.h"

namespace talvorn::platform {

inline constexpr std::uint16_t kIpv4AddressPrimary = 0x0001;

// One row of the IPv4 address table. Addresses are in network byte order, as the
// system holds them in memory.
struct Ipv4AddressRow {
  std::uint32_t address = 0;
  std::uint32_t interfaceIndex = 0;
  std::uint32_t mask = 0;
  std::uint32_t broadcastAddress = 0;
  std::uint32_t reassemblySize = 0;  // of the largest datagram; 0 on Linux
  std::uint16_t type = 0;            // kIpv4AddressPrimary and other flags
  // Changes when the address or its interface was made anew: group memberships of the
  // old one are gone then. 0 where the system does not tell.
  std::uint32_t incarnation = 0;

  bool operator==(const Ipv4AddressRow&) const = default;
};

// Flags, status and type as GetAdaptersAddresses gives them.
inline constexpr std::uint32_t kAdapterNoMulticast = 0x0010;
inline constexpr std::uint32_t kAdapterIpv6Enabled = 0x0100;
inline constexpr std::uint32_t kOperStatusUp = 1;
inline constexpr std::uint32_t kOperStatusDown = 2;
inline constexpr std::uint32_t kIfTypeEthernet = 6;
inline constexpr std::uint32_t kIfTypeSoftwareLoopback = 24;

struct Ipv6Adapter {
  std::uint32_t ipv6IfIndex = 0;
  std::uint32_t flags = 0;
  std::uint32_t operStatus = 0;
  std::uint32_t ifType = 0;
  std::uint32_t incarnation = 0;         // as that of an IPv4 address
  std::vector<HostAddress> addresses{};  // unicast, also those that cannot be used yet
};

// Addresses of interfaces that are up, sorted by address. None on failure.
[[nodiscard]] std::optional<std::vector<Ipv4AddressRow>> QueryIpv4AddressTable();

// Index of the first interface in the address table that has `address` (network byte order); 0
// when there is none or the system does not tell.
[[nodiscard]] std::uint32_t InterfaceOfIpv4Address(std::uint32_t address);

// All adapters; IPv6 counts as enabled once an address can be used. None on failure.
[[nodiscard]] std::optional<std::vector<Ipv6Adapter>> QueryIpv6Adapters();

// Name of an interface to its index and back, for command-line tools; 0 and empty
// when there is none.
[[nodiscard]] std::uint32_t InterfaceIndexFromName(const char* name);

// An interface as its owner knows it, whether or not it can be used.
struct InterfaceDescription {
  std::uint32_t index = 0;
  std::string name{};  // UTF-8
  bool up = false;     // switched on, and with carrier
  bool multicast = false;
  bool loopback = false;
  std::vector<HostAddress> groups{};  // that some program has joined on it
};

// All of them; none when the system does not tell.
[[nodiscard]] std::vector<InterfaceDescription> DescribeInterfaces();

// Unicast addresses of one interface, for programs that send as several hosts.
struct InterfaceAddresses {
  std::vector<std::uint32_t> ipv4;  // network byte order
  std::vector<std::array<std::uint8_t, 16>> ipv6;
  bool ipv6Pending = false;  // the system still checks an IPv6 address for duplicates
};
[[nodiscard]] InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex);

}  // namespace talvorn::platform
