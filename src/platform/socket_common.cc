#include "platform/socket_common.h"

#include <memory>
#include <utility>

namespace talvorn::platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= sizeof(SocketAddress::storage));

SocketType FromNative(int type) {
  switch (type) {
    case SOCK_DGRAM:
      return SocketType::kDatagram;
    case SOCK_STREAM:
      return SocketType::kStream;
    default:
      return SocketType::kAny;
  }
}

}  // namespace

int ToNative(AddressFamily family) {
  switch (family) {
    case AddressFamily::kIpv4:
      return AF_INET;
    case AddressFamily::kIpv6:
      return AF_INET6;
    case AddressFamily::kUnspecified:
      break;
  }
  return AF_UNSPEC;
}

int ToNative(SocketType type) {
  switch (type) {
    case SocketType::kDatagram:
      return SOCK_DGRAM;
    case SocketType::kStream:
      return SOCK_STREAM;
    case SocketType::kAny:
      break;
  }
  return 0;
}

SocketAddress FromNative(const void* address, std::size_t size) {
  SocketAddress result;
  result.size = static_cast<std::uint32_t>(std::min(size, result.storage.size()));
  std::memcpy(result.storage.data(), address, result.size);
  return result;
}

ipv6_mreq Ipv6Membership(const SocketAddress& group, std::uint32_t interfaceIndex) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = As<sockaddr_in6>(group).sin6_addr;
  request.ipv6mr_interface = interfaceIndex;
  return request;
}

void Arrival::Note(int level, int type, const void* data, std::size_t size) {
  if (level == IPPROTO_IP && type == IP_PKTINFO && size >= sizeof(Ipv4PacketInfo)) {
    Ipv4PacketInfo info{};
    std::memcpy(&info, data, sizeof(info));
    known = true;
    interfaceIndex = static_cast<std::uint32_t>(info.ipi_ifindex);
    ipv4 = info.ipi_addr;
  } else if (level == IPPROTO_IPV6 && type == IPV6_PKTINFO && size >= sizeof(Ipv6PacketInfo)) {
    Ipv6PacketInfo info{};
    std::memcpy(&info, data, sizeof(info));
    known = true;
    interfaceIndex = static_cast<std::uint32_t>(info.ipi6_ifindex);
    ipv6 = info.ipi6_addr;
  }
}

bool Arrival::IsFor(const SocketAddress& group, std::uint32_t memberInterfaceIndex) const {
  // An index of 0 is one that is not told.
  if (memberInterfaceIndex != 0 && interfaceIndex != 0 && interfaceIndex != memberInterfaceIndex) {
    return false;
  }
  if (group.family() == AddressFamily::kIpv4) return ipv4.s_addr == group.ipv4();
  const in6_addr wanted = As<sockaddr_in6>(group).sin6_addr;
  return std::memcmp(&ipv6, &wanted, sizeof(wanted)) == 0;
}

AddressFamily SocketAddress::family() const {
  if (size < sizeof(sockaddr::sa_family)) return AddressFamily::kUnspecified;
  switch (Native(*this)->sa_family) {
    case AF_INET:
      return AddressFamily::kIpv4;
    case AF_INET6:
      return AddressFamily::kIpv6;
    default:
      return AddressFamily::kUnspecified;
  }
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

std::uint32_t SocketAddress::ipv4() const {
  return family() == AddressFamily::kIpv4 ? As<sockaddr_in>(*this).sin_addr.s_addr : 0;
}

std::uint16_t SocketAddress::port() const {
  switch (family()) {
    case AddressFamily::kIpv4:
      return ntohs(As<sockaddr_in>(*this).sin_port);
    case AddressFamily::kIpv6:
      return ntohs(As<sockaddr_in6>(*this).sin6_port);
    case AddressFamily::kUnspecified:
      break;
  }
  return 0;
}

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

HostAddress SocketAddress::host() const {
  switch (family()) {
    case AddressFamily::kIpv4:
      return HostAddress::Ipv4(ipv4());
    case AddressFamily::kIpv6: {
      const auto native = As<sockaddr_in6>(*this);
      std::array<std::uint8_t, 16> bytes{};
      std::memcpy(bytes.data(), &native.sin6_addr, bytes.size());
      return HostAddress::Ipv6(bytes, native.sin6_scope_id);
    }
    case AddressFamily::kUnspecified:
      break;
  }
  return {};
}

std::optional<ResolvedAddress> ResolveAddress(const char* host, const char* service,
                                              const ResolveHints& hints) {
  addrinfo wanted{};
  wanted.ai_family = ToNative(hints.family);
  wanted.ai_socktype = ToNative(hints.type);
  wanted.ai_flags = (hints.numericHost ? AI_NUMERICHOST : 0) | (hints.passive ? AI_PASSIVE : 0);
  addrinfo* list = nullptr;
  if (getaddrinfo(host, service, &wanted, &list) != 0) return std::nullopt;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  if (list == nullptr || list->ai_addr == nullptr) return std::nullopt;

  ResolvedAddress result;
  result.address = FromNative(list->ai_addr, list->ai_addrlen);
  result.family = result.address.family();
  result.type = FromNative(list->ai_socktype);
  return result;
}

std::string NumericHost(const SocketAddress& address, std::size_t capacity) {
  char text[NI_MAXHOST];
  if (getnameinfo(Native(address), SizeOf(address), text, sizeof(text), nullptr, 0,
                  NI_NUMERICHOST) != 0 ||
      std::strlen(text) >= capacity) {
    return {};
  }
  return text;
}

std::string Ipv4Text(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, text, sizeof(text)) != nullptr ? text : "";
}

std::uint32_t ParseIpv4(const char* text) { return inet_addr(text); }

Socket::~Socket() { Close(); }

Socket::Socket(Socket&& other) noexcept
    : Waitable(other),
      handle_(std::exchange(other.handle_, kNoWaitHandle)),
      readable_(std::exchange(other.readable_, kNoWaitHandle)),
      family_(other.family_),
      group_(std::exchange(other.group_, {})),
      interfaceValue_(other.interfaceValue_),
      memberInterfaceIndex_(other.memberInterfaceIndex_),
      receives_(other.receives_) {}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = std::exchange(other.handle_, kNoWaitHandle);
    readable_ = std::exchange(other.readable_, kNoWaitHandle);
    family_ = other.family_;
    group_ = std::exchange(other.group_, {});
    interfaceValue_ = other.interfaceValue_;
    memberInterfaceIndex_ = other.memberInterfaceIndex_;
    receives_ = other.receives_;
  }
  return *this;
}

bool Socket::SetReuseAddress() { return SetOption(handle_, SOL_SOCKET, SO_REUSEADDR, int{1}); }

SocketAddress Socket::LocalAddress() const {
  sockaddr_storage address{};
  NativeSize size = sizeof(address);
  if (getsockname(Native(handle_), reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return FromNative(&address, std::min(static_cast<std::size_t>(size), sizeof(address)));
}

bool Socket::Listen(int backlog) { return listen(Native(handle_), backlog) == 0; }

bool Socket::ConnectSucceeded() const {
  int error = 0;
  NativeSize size = sizeof(error);
  return getsockopt(Native(handle_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error),
                    &size) == 0 &&
         error == 0;
}

}  // namespace talvorn::platform
