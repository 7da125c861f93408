// Addresses of the Internet protocols: their families, their texts, and the hosts that
// have them.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace talvorn::platform {

enum class AddressFamily { kUnspecified, kIpv4, kIpv6 };

// An address without its port. An IPv4 address stands as the IPv6 address that it maps
// to (RFC 4291, ::ffff:192.168.1.10).
struct HostAddress {
  std::array<std::uint8_t, 16> bytes{};
  std::uint32_t scope = 0;  // interface index of a link-local address; 0 for any other

  // `address` in network byte order.
  [[nodiscard]] static HostAddress Ipv4(std::uint32_t address);
  [[nodiscard]] static HostAddress Ipv6(const std::array<std::uint8_t, 16>& address,
                                        std::uint32_t interfaceIndex);
  auto operator<=>(const HostAddress&) const = default;
};

// A native socket address: family, port, address, scope.
struct SocketAddress {
  std::array<std::byte, 128> storage{};
  std::uint32_t size = 0;

  [[nodiscard]] AddressFamily family() const;  // kUnspecified for any other family
  // `address` in network byte order, `port` in host byte order.
  [[nodiscard]] static SocketAddress Ipv4(std::uint32_t address, std::uint16_t port);
  [[nodiscard]] static SocketAddress Ipv6(const std::array<std::uint8_t, 16>& address,
                                          std::uint32_t scopeId, std::uint16_t port);
  // The wildcard address of IPv4 or IPv6.
  [[nodiscard]] static SocketAddress Any(AddressFamily family, std::uint16_t port);
  // Of a numeric text without scope; of no family when it is no such text.
  [[nodiscard]] static SocketAddress Parse(const char* text, std::uint16_t port);

  // In network byte order; 0 for another family.
  [[nodiscard]] std::uint32_t ipv4() const;
  [[nodiscard]] std::uint16_t port() const;
  [[nodiscard]] HostAddress host() const;  // all zero for another family
};

// Numeric host text, link-local IPv6 addresses with their scope; empty for another
// family.
[[nodiscard]] std::string NumericHost(const SocketAddress& address);

// "192.168.1.10" from an address in network byte order.
[[nodiscard]] std::string Ipv4Text(std::uint32_t address);
// As the C library's inet_addr: 0xFFFFFFFF for a text that is no address.
[[nodiscard]] std::uint32_t ParseIpv4(const char* text);

// First IPv4 address of a host, in network byte order; none when the system's resolver
// finds nothing, or takes longer than `limitMs`.
[[nodiscard]] std::optional<std::uint32_t> ResolveHost(std::u16string_view name,
                                                       std::uint32_t limitMs);

}  // namespace talvorn::platform
