#include "platform/socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <climits>
#include <new>
#include <utility>

#include "platform/address_owner.h"
#include "platform/bounded_resolution.h"
#include "platform/fault_injection.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/wait.h"
#include "platform/socket_common.h"
#include "platform/text_encoding.h"

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace talvorn::platform {
namespace {

// Makes the system tell where each datagram was sent to and came in, and keep away
// the groups that other sockets of the host have joined. The latter is best
// effort (IPv6 has it since Linux 4.20): ReceiveFrom looks at every datagram.
bool PrepareDatagramSocket(int fd, AddressFamily family) {
  if (family == AddressFamily::kIpv6) {
    (void)SetOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
    return SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1) &&
           SetOption(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1);
  }
  (void)SetOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
  return SetOption(fd, IPPROTO_IP, IP_PKTINFO, 1);
}

ip_mreqn Ipv4Membership(const SocketAddress& group, std::uint32_t interfaceAddress,
                        std::uint32_t interfaceIndex) {
  ip_mreqn request{};
  request.imr_multiaddr = As<sockaddr_in>(group).sin_addr;
  request.imr_address.s_addr = interfaceAddress;
  request.imr_ifindex = static_cast<int>(interfaceIndex);
  return request;
}

Arrival ArrivalOf(msghdr& message) {
  Arrival arrival;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    arrival.Note(part->cmsg_level, part->cmsg_type, CMSG_DATA(part), part->cmsg_len - CMSG_LEN(0));
  }
  return arrival;
}

// What a failed receive means for the socket: most errors say something about one
// datagram, one peer, or the moment.
ReceiveStatus StatusOfReceiveError(int error) {
  switch (error) {
    case EAGAIN:
    case EINTR:
    case ENETDOWN:
    case ENETUNREACH:
    case ENETRESET:
    case ECONNRESET:
    case ECONNREFUSED:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case EMSGSIZE:
    case ENOBUFS:
    case ENOMEM:
      return ReceiveStatus::kNothing;
    default:
      return ReceiveStatus::kFailed;
  }
}

// Without the port nothing is ever heard, and nothing else says so.
void ReportBindFailure(int fd, const SocketAddress& local, int error) {
  if (local.port() == 0) return;
  int type = 0;
  socklen_t size = sizeof(type);
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_DGRAM) return;
  try {
    const std::string port = "UDP port " + std::to_string(local.port());
    if (error == EADDRINUSE) {
      ReportObstacle("another program uses " + port +
                     " exclusively, so that no device can be heard; find it with \"ss -ulnp\" and "
                     "end it.");
    } else if (error == EACCES) {
      ReportObstacle("this account may not receive on " + port +
                     ", so that no device can be heard; permit it in the system's security "
                     "policy, or start the program as root.");
    }
  } catch (const std::bad_alloc&) {
    // The failure itself is still returned.
  }
}

}  // namespace

bool StartSocketLibrary() { return true; }
void StopSocketLibrary() {}

std::optional<SocketAddress> ResolveStreamHost(std::u16string_view host, const char* service,
                                               std::uint32_t limitMs) {
  const auto resolve = [name = WideToUtf8(host),
                        port = std::string(service)]() -> std::optional<SocketAddress> {
    const ResolveHints hints{.family = AddressFamily::kIpv4, .type = SocketType::kStream};
    const auto result = ResolveAddress(name.c_str(), port.c_str(), hints);
    if (!result) return std::nullopt;
    return result->address;
  };
  return ResolveWithin(limitMs, resolve);
}

Socket Socket::Create(AddressFamily family, SocketType type) {
  if (FaultHits(Fault::kSocketCreate)) return {};
  if (family == AddressFamily::kUnspecified || type == SocketType::kAny) return {};
  const int fd = socket(ToNative(family), ToNative(type) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return {};
  Socket result(fd, family);
  if (type == SocketType::kDatagram && !PrepareDatagramSocket(fd, family)) return {};
  return result;
}

void Socket::Close() {
  if (handle_ == kNoWaitHandle) return;
  close(Native(std::exchange(handle_, kNoWaitHandle)));
  group_ = {};
}

bool Socket::SetMulticastLoopback(bool on) {
  const int value = on ? 1 : 0;
  return family_ == AddressFamily::kIpv6
             ? SetOption(handle_, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, value)
             : SetOption(handle_, IPPROTO_IP, IP_MULTICAST_LOOP, value);
}

bool Socket::SetMulticastHops(std::uint8_t hops) {
  const int value = hops;
  return family_ == AddressFamily::kIpv6
             ? SetOption(handle_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, value)
             : SetOption(handle_, IPPROTO_IP, IP_MULTICAST_TTL, value);
}

bool Socket::SetMulticastInterface(std::uint32_t interfaceValue) {
  if (family_ == AddressFamily::kIpv6) {
    return SetOption(handle_, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interfaceValue));
  }
  // The address as well: datagrams then leave with it as their source, also from
  // an interface that has several. Without an index the system looks for one.
  return SetOption(handle_, IPPROTO_IP, IP_MULTICAST_IF,
                   Ipv4Membership({}, interfaceValue, InterfaceOfIpv4Address(interfaceValue)));
}

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  // The system doubles the value to account for its own overhead.
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX / 2));
  if (!SetOption(handle_, SOL_SOCKET, SO_RCVBUFFORCE, value)) {
    (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
  }
}

// A listener has its port for itself with this option too.
bool Socket::ClaimAddress() { return SetReuseAddress(); }

bool Socket::Bind(const SocketAddress& local) {
  if (bind(Native(handle_), Native(local), local.size) == 0) return true;
  const int error = errno;
  ReportBindFailure(Native(handle_), local, error);
  return false;
}

bool Socket::JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue) {
  if (FaultHits(Fault::kGroupJoin)) return false;
  if (group.family() != family_ || family_ == AddressFamily::kUnspecified) return false;
  std::uint32_t index = interfaceValue;
  if (family_ == AddressFamily::kIpv6) {
    if (!SetOption(handle_, IPPROTO_IPV6, IPV6_JOIN_GROUP, Ipv6Membership(group, index))) {
      return false;
    }
  } else {
    index = InterfaceOfIpv4Address(interfaceValue);
    if (!SetOption(handle_, IPPROTO_IP, IP_ADD_MEMBERSHIP,
                   Ipv4Membership(group, interfaceValue, index))) {
      return false;
    }
  }
  group_ = group;
  interfaceValue_ = interfaceValue;
  memberInterfaceIndex_ = index;
  return true;
}

bool Socket::RejoinGroup() {
  if (group_.size == 0) return false;
  // The system keeps the entry of a membership whose interface has gone, and
  // would take a second one for a duplicate. Nothing to leave is fine.
  if (family_ == AddressFamily::kIpv6) {
    (void)SetOption(handle_, IPPROTO_IPV6, IPV6_LEAVE_GROUP,
                    Ipv6Membership(group_, memberInterfaceIndex_));
  } else {
    (void)SetOption(handle_, IPPROTO_IP, IP_DROP_MEMBERSHIP,
                    Ipv4Membership(group_, interfaceValue_, memberInterfaceIndex_));
  }
  return JoinGroup(SocketAddress(group_), interfaceValue_);
}

std::optional<std::size_t> Socket::SendTo(std::span<const std::byte> data,
                                          const SocketAddress& destination) {
  ssize_t sent = 0;
  do {
    sent = sendto(Native(handle_), data.data(), data.size(), MSG_NOSIGNAL, Native(destination),
                  destination.size);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

ReceiveStatus Socket::ReceiveFrom(std::span<std::byte> buffer, std::size_t& size,
                                  SocketAddress& source) {
  int injected = 0;
  if (FaultHits(Fault::kReceive, &injected)) return StatusOfReceiveError(injected);

  SocketAddress from;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo))];
  iovec part{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = from.storage.data();
  message.msg_namelen = static_cast<socklen_t>(from.storage.size());
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t received = recvmsg(Native(handle_), &message, 0);
  if (received < 0) return StatusOfReceiveError(errno);
  const Arrival arrival = ArrivalOf(message);
  if (group_.size != 0 && (!arrival.known || !arrival.IsFor(group_, memberInterfaceIndex_))) {
    return ReceiveStatus::kNothing;
  }
  from.size =
      std::min<std::uint32_t>(message.msg_namelen, static_cast<std::uint32_t>(from.storage.size()));
  size = static_cast<std::size_t>(received);
  source = from;
  return ReceiveStatus::kReceived;
}

Socket Socket::Accept() {
  const int fd = accept4(Native(handle_), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return {};
  return Socket(fd, family_);
}

ConnectStatus Socket::Connect(const SocketAddress& peer) {
  if (connect(Native(handle_), Native(peer), peer.size) == 0) {
    return ConnectStatus::kConnected;
  }
  // An interrupted connect goes on by itself, as one in progress does.
  return errno == EINPROGRESS || errno == EINTR ? ConnectStatus::kPending : ConnectStatus::kFailed;
}

WaitStatus Socket::WaitWritable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitForDescriptor(Native(handle_), POLLOUT, limit);
}

WaitStatus Socket::WaitReadable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitForDescriptor(Native(handle_), POLLIN, limit);
}

std::optional<std::size_t> Socket::Send(std::span<const std::byte> data) {
  ssize_t sent = 0;
  do {
    sent = send(Native(handle_), data.data(), data.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  ssize_t received = 0;
  do {
    received = recv(Native(handle_), buffer.data(), buffer.size(), 0);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return std::nullopt;
  return static_cast<std::size_t>(received);
}

void Socket::ShutdownBoth() { (void)shutdown(Native(handle_), SHUT_RDWR); }

}  // namespace talvorn::platform
