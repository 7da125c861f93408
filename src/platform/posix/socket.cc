#include "platform/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/posix/address_owner.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace talvorn::platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= sizeof(SocketAddress::storage));

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

const sockaddr* Native(const SocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.storage.data());
}

SocketAddress FromNative(const void* address, std::size_t size) {
  SocketAddress result;
  result.size = static_cast<std::uint32_t>(std::min(size, result.storage.size()));
  std::memcpy(result.storage.data(), address, result.size);
  return result;
}

// The address as the native type `T`; zeros where it is shorter.
template <typename T>
T As(const SocketAddress& address) {
  T native{};
  std::memcpy(&native, address.storage.data(), std::min<std::size_t>(sizeof(T), address.size));
  return native;
}

template <typename T>
bool SetOption(std::intptr_t handle, int level, int option, const T& value) {
  return setsockopt(static_cast<int>(handle), level, option, &value, sizeof(value)) == 0;
}

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

ipv6_mreq Ipv6Membership(const SocketAddress& group, std::uint32_t interfaceIndex) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = As<sockaddr_in6>(group).sin6_addr;
  request.ipv6mr_interface = interfaceIndex;
  return request;
}

// Where a datagram was sent to and on which interface it came in.
struct Arrival {
  bool known = false;
  std::uint32_t interfaceIndex = 0;
  in_addr ipv4{};
  in6_addr ipv6{};
};

Arrival ArrivalOf(msghdr& message) {
  Arrival arrival;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO &&
        part->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
      in_pktinfo info{};
      std::memcpy(&info, CMSG_DATA(part), sizeof(info));
      arrival.known = true;
      arrival.interfaceIndex = static_cast<std::uint32_t>(info.ipi_ifindex);
      arrival.ipv4 = info.ipi_addr;
    } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO &&
               part->cmsg_len >= CMSG_LEN(sizeof(in6_pktinfo))) {
      in6_pktinfo info{};
      std::memcpy(&info, CMSG_DATA(part), sizeof(info));
      arrival.known = true;
      arrival.interfaceIndex = info.ipi6_ifindex;
      arrival.ipv6 = info.ipi6_addr;
    }
  }
  return arrival;
}

bool IsForMember(const Arrival& arrival, const SocketAddress& group, std::uint32_t interfaceIndex) {
  if (!arrival.known) return false;
  if (interfaceIndex != 0 && arrival.interfaceIndex != interfaceIndex) return false;
  if (group.family() == AddressFamily::kIpv4) return arrival.ipv4.s_addr == group.ipv4();
  const in6_addr wanted = As<sockaddr_in6>(group).sin6_addr;
  return std::memcmp(&arrival.ipv6, &wanted, sizeof(wanted)) == 0;
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

AddressFamily SocketAddress::family() const {
  if (size < sizeof(sa_family_t)) return AddressFamily::kUnspecified;
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

std::optional<SocketAddress> ResolveStreamHost(std::u16string_view host, const char* service) {
  try {
    const ResolveHints hints{.family = AddressFamily::kIpv4, .type = SocketType::kStream};
    const auto result = ResolveAddress(WideToUtf8(host).c_str(), service, hints);
    if (!result) return std::nullopt;
    return result->address;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::string NumericHost(const SocketAddress& address, std::size_t capacity) {
  char text[NI_MAXHOST];
  if (getnameinfo(Native(address), address.size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) !=
          0 ||
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
      family_(other.family_),
      group_(std::exchange(other.group_, {})),
      interfaceValue_(other.interfaceValue_),
      memberInterfaceIndex_(other.memberInterfaceIndex_) {}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = std::exchange(other.handle_, kNoWaitHandle);
    family_ = other.family_;
    group_ = std::exchange(other.group_, {});
    interfaceValue_ = other.interfaceValue_;
    memberInterfaceIndex_ = other.memberInterfaceIndex_;
  }
  return *this;
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
  close(static_cast<int>(std::exchange(handle_, kNoWaitHandle)));
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

bool Socket::SetReuseAddress() { return SetOption(handle_, SOL_SOCKET, SO_REUSEADDR, 1); }

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  // The system doubles the value to account for its own overhead.
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX / 2));
  if (!SetOption(handle_, SOL_SOCKET, SO_RCVBUFFORCE, value)) {
    (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
  }
}

bool Socket::Bind(const SocketAddress& local) {
  const int fd = static_cast<int>(handle_);
  if (bind(fd, Native(local), local.size) == 0) return true;
  const int error = errno;
  ReportBindFailure(fd, local, error);
  return false;
}

SocketAddress Socket::LocalAddress() const {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  if (getsockname(static_cast<int>(handle_), reinterpret_cast<sockaddr*>(&address), &size) != 0)
    return {};
  return FromNative(&address, std::min<std::size_t>(size, sizeof(address)));
}

bool Socket::JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue) {
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
    sent = sendto(static_cast<int>(handle_), data.data(), data.size(), MSG_NOSIGNAL,
                  Native(destination), destination.size);
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
  const ssize_t received = recvmsg(static_cast<int>(handle_), &message, 0);
  if (received < 0) return StatusOfReceiveError(errno);
  if (group_.size != 0 && !IsForMember(ArrivalOf(message), group_, memberInterfaceIndex_)) {
    return ReceiveStatus::kNothing;
  }
  from.size =
      std::min<std::uint32_t>(message.msg_namelen, static_cast<std::uint32_t>(from.storage.size()));
  size = static_cast<std::size_t>(received);
  source = from;
  return ReceiveStatus::kReceived;
}

bool Socket::Listen(int backlog) { return listen(static_cast<int>(handle_), backlog) == 0; }

Socket Socket::Accept() {
  const int fd = accept4(static_cast<int>(handle_), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return {};
  return Socket(fd, family_);
}

ConnectStatus Socket::Connect(const SocketAddress& peer) {
  if (connect(static_cast<int>(handle_), Native(peer), peer.size) == 0) {
    return ConnectStatus::kConnected;
  }
  // An interrupted connect goes on by itself, as one in progress does.
  return errno == EINPROGRESS || errno == EINTR ? ConnectStatus::kPending : ConnectStatus::kFailed;
}

bool Socket::ConnectSucceeded() const {
  int error = 0;
  socklen_t size = sizeof(error);
  return getsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
         error == 0;
}

WaitStatus Socket::WaitWritable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitForDescriptor(static_cast<int>(handle_), POLLOUT, limit);
}

WaitStatus Socket::WaitReadable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitForDescriptor(static_cast<int>(handle_), POLLIN, limit);
}

std::optional<std::size_t> Socket::Send(std::span<const std::byte> data) {
  ssize_t sent = 0;
  do {
    sent = send(static_cast<int>(handle_), data.data(), data.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  ssize_t received = 0;
  do {
    received = recv(static_cast<int>(handle_), buffer.data(), buffer.size(), 0);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return std::nullopt;
  return static_cast<std::size_t>(received);
}

void Socket::ShutdownBoth() { (void)shutdown(static_cast<int>(handle_), SHUT_RDWR); }

}  // namespace talvorn::platform
