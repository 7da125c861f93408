#include "platform/address.h"

#include <bit>
#include <memory>

#include "platform/bounded_resolution.h"
#include "platform/socket_common.h"

namespace talvorn::platform {

static_assert(sizeof(sockaddr_storage) <= sizeof(SocketAddress::storage));

HostAddress HostAddress::Ipv4(std::uint32_t address) {
  HostAddress host;
  host.bytes[10] = host.bytes[11] = 0xFF;
  std::memcpy(host.bytes.data() + 12, &address, sizeof(address));
  return host;
}

HostAddress HostAddress::Ipv6(const std::array<std::uint8_t, 16>& address,
                              std::uint32_t interfaceIndex) {
  const bool linkLocal = address[0] == 0xFE && (address[1] & 0xC0) == 0x80;
  return {address, linkLocal ? interfaceIndex : 0};
}

AddressFamily SocketAddress::family() const {
  const int family = size < sizeof(sockaddr::sa_family) ? AF_UNSPEC : Native(*this)->sa_family;
  if (family == AF_INET) return AddressFamily::kIpv4;
  return family == AF_INET6 ? AddressFamily::kIpv6 : AddressFamily::kUnspecified;
}

SocketAddress SocketAddress::Ipv4(std::uint32_t address, std::uint16_t port) {
  sockaddr_in native{};
  native.sin_family = AF_INET;
  native.sin_port = htons(port);
  native.sin_addr.s_addr = address;
  return FromNative(&native, sizeof(native));
}

SocketAddress SocketAddress::Ipv6(const std::array<std::uint8_t, 16>& address,
                                  std::uint32_t scopeId, std::uint16_t port) {
  sockaddr_in6 native{};
  native.sin6_family = AF_INET6;
  native.sin6_port = htons(port);
  std::memcpy(&native.sin6_addr, address.data(), address.size());
  native.sin6_scope_id = scopeId;
  return FromNative(&native, sizeof(native));
}

SocketAddress SocketAddress::Any(AddressFamily family, std::uint16_t port) {
  return family == AddressFamily::kIpv6 ? Ipv6({}, 0, port) : Ipv4(0, port);
}

SocketAddress SocketAddress::Parse(const char* text, std::uint16_t port) {
  std::uint32_t ipv4 = 0;
  if (inet_pton(AF_INET, text, &ipv4) == 1) return Ipv4(ipv4, port);
  std::array<std::uint8_t, 16> ipv6{};
  if (inet_pton(AF_INET6, text, ipv6.data()) == 1) return Ipv6(ipv6, 0, port);
  return {};
}

std::uint32_t SocketAddress::ipv4() const {
  return family() == AddressFamily::kIpv4 ? As<sockaddr_in>(*this).sin_addr.s_addr : 0;
}

std::uint16_t SocketAddress::port() const {
  // Both families have it at the same place.
  return family() == AddressFamily::kUnspecified ? 0 : ntohs(As<sockaddr_in>(*this).sin_port);
}

HostAddress SocketAddress::host() const {
  if (family() == AddressFamily::kIpv4) return HostAddress::Ipv4(ipv4());
  if (family() != AddressFamily::kIpv6) return {};
  const auto native = As<sockaddr_in6>(*this);
  return HostAddress::Ipv6(std::bit_cast<std::array<std::uint8_t, 16>>(native.sin6_addr),
                           native.sin6_scope_id);
}

std::string NumericHost(const SocketAddress& address) {
  if (address.family() == AddressFamily::kIpv4) return Ipv4Text(address.ipv4());
  char text[NI_MAXHOST];
  if (getnameinfo(Native(address), SizeOf(address), text, sizeof(text), nullptr, 0,
                  NI_NUMERICHOST) != 0) {
    return {};
  }
  return text;
}

std::string Ipv4Text(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, text, sizeof(text)) != nullptr ? text : "";
}

std::uint32_t ParseIpv4(const char* text) { return inet_addr(text); }

std::optional<std::uint32_t> ResolveHost(std::u16string_view name, std::uint32_t limitMs) {
  return ResolveWithin(limitMs, [host = NativeText(name)]() -> std::optional<std::uint32_t> {
    NativeAddressInfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    NativeAddressInfo* list = nullptr;
    if (GetAddressInfo(host.c_str(), nullptr, &wanted, &list) != 0) return std::nullopt;
    const std::unique_ptr<NativeAddressInfo, void (*)(NativeAddressInfo*)> owner(list,
                                                                                 FreeAddressInfo);
    if (list == nullptr || list->ai_addr == nullptr) return std::nullopt;
    return FromNative(list->ai_addr, list->ai_addrlen).ipv4();
  });
}

}  // namespace talvorn::platform
