#include "platform/socket_common.h"

#include <utility>

#include "platform/fault_injection.h"
#include "platform/network_interfaces.h"

namespace talvorn::platform {

const MulticastOptions& OptionsOf(AddressFamily family) {
  static constexpr MulticastOptions kIpv4{IPPROTO_IP,      IP_MULTICAST_LOOP, IP_MULTICAST_TTL,
                                          IP_MULTICAST_IF, IP_ADD_MEMBERSHIP, IP_DROP_MEMBERSHIP};
  static constexpr MulticastOptions kIpv6{IPPROTO_IPV6,        IPV6_MULTICAST_LOOP,
                                          IPV6_MULTICAST_HOPS, IPV6_MULTICAST_IF,
                                          IPV6_JOIN_GROUP,     IPV6_LEAVE_GROUP};
  return family == AddressFamily::kIpv6 ? kIpv6 : kIpv4;
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

void Datagrams::Keep(std::size_t from, std::size_t to) {
  if (from == to) return;
  std::memcpy(bytes_[to].data(), bytes_[from].data(), sizes_[from]);
  sizes_[to] = sizes_[from];
  sources_[to] = sources_[from];
}

Socket::~Socket() { Close(); }

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = std::exchange(other.handle_, kNoWaitHandle);
    readable_ = std::exchange(other.readable_, kNoWaitHandle);
    family_ = other.family_;
    membership_ = std::exchange(other.membership_, std::nullopt);
  }
  return *this;
}

SocketAddress Socket::LocalAddress() const {
  sockaddr_storage address{};
  NativeSize size = sizeof(address);
  if (getsockname(Native(handle_), reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return FromNative(&address, std::min(static_cast<std::size_t>(size), sizeof(address)));
}

bool Socket::SetMembership(int option, const Membership& membership) const {
  const int level = OptionsOf(family_).level;
  if (family_ == AddressFamily::kIpv6) {
    const ipv6_mreq request{As<sockaddr_in6>(membership.group).sin6_addr,
                            membership.interfaceIndex};
    return SetOption(handle_, level, option, request);
  }
  in_addr address{};
  address.s_addr = membership.interfaceValue;
  return SetOption(handle_, level, option,
                   Ipv4Membership(As<sockaddr_in>(membership.group).sin_addr, address,
                                  membership.interfaceIndex));
}

bool Socket::JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue) {
  if (FaultHits(Fault::kGroupJoin)) return false;
  if (group.family() != family_ || family_ == AddressFamily::kUnspecified) return false;
  const bool ipv6 = family_ == AddressFamily::kIpv6;
  const Membership wanted{group, interfaceValue,
                          ipv6 ? interfaceValue : InterfaceOfIpv4Address(interfaceValue)};
  if (!SetMembership(OptionsOf(family_).join, wanted)) return false;
  membership_ = wanted;
  return true;
}

bool Socket::RejoinGroup() {
  if (!membership_) return false;
  // A membership may outlive its interface, and a second one would count as its duplicate.
  // Nothing to leave is fine.
  (void)SetMembership(OptionsOf(family_).leave, *membership_);
  const Membership last = *membership_;
  return JoinGroup(last.group, last.interfaceValue);
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
