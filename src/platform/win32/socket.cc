// Each socket has an event of Winsock, which stands for its readiness to be read in
// waits: set while something may wait, reset by the receive (or accept) that finds
// nothing.
#include "platform/socket.h"

#include <atomic>
#include <climits>
#include <memory>
#include <new>
#include <utility>

#include "platform/address_owner.h"
#include "platform/bounded_resolution.h"
#include "platform/fault_injection.h"
#include "platform/socket_common.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The options of Winsock 2; those of Winsock 1 have the same names and other values.
static_assert(IP_MULTICAST_IF == 9 && IP_MULTICAST_TTL == 10 && IP_MULTICAST_LOOP == 11 &&
              IP_ADD_MEMBERSHIP == 12);

WSAEVENT NativeEvent(std::intptr_t event) { return reinterpret_cast<WSAEVENT>(event); }

// Winsock takes sizes as int; the rest of a stream's data goes with the next call.
int SizeOf(std::span<const std::byte> bytes) {
  return static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
}

// One byte, the width in which senders have always given it; the wider form where
// the system insists.
bool SetByteOption(std::intptr_t handle, int level, int option, std::uint8_t value) {
  return SetOption(handle, level, option, value) || SetOption(handle, level, option, DWORD{value});
}

// The receive that tells where a datagram was sent to. The provider of a family has
// one for all of its sockets.
std::atomic<LPFN_WSARECVMSG>& ReceiveMessage(AddressFamily family) {
  static std::atomic<LPFN_WSARECVMSG> ipv4;
  static std::atomic<LPFN_WSARECVMSG> ipv6;
  return family == AddressFamily::kIpv6 ? ipv6 : ipv4;
}

bool FindReceiveMessage(SOCKET socket, AddressFamily family) {
  if (ReceiveMessage(family).load(std::memory_order_relaxed) != nullptr) return true;
  GUID id = WSAID_WSARECVMSG;
  LPFN_WSARECVMSG function = nullptr;
  DWORD size = 0;
  if (WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function,
               sizeof(function), &size, nullptr, nullptr) != 0) {
    return false;
  }
  ReceiveMessage(family).store(function, std::memory_order_relaxed);
  return function != nullptr;
}

// Makes the system tell where each datagram was sent to and came in, and keep to
// itself that nobody listened where one of ours went. Both are best effort: Windows
// gives a socket only the groups that it has joined itself, and a receive survives
// the error.
bool PrepareDatagramSocket(std::intptr_t handle, AddressFamily family) {
  if (!FindReceiveMessage(Native(handle), family)) return false;
  BOOL off = FALSE;
  DWORD size = 0;
  (void)WSAIoctl(Native(handle), SIO_UDP_CONNRESET, &off, sizeof(off), nullptr, 0, &size, nullptr,
                 nullptr);
  if (family == AddressFamily::kIpv6) {
    (void)SetOption(handle, IPPROTO_IPV6, IPV6_PKTINFO, DWORD{1});
    return SetOption(handle, IPPROTO_IPV6, IPV6_V6ONLY, DWORD{1});
  }
  (void)SetOption(handle, IPPROTO_IP, IP_PKTINFO, DWORD{1});
  return true;
}

Arrival ArrivalOf(WSAMSG& message) {
  Arrival arrival;
  for (WSACMSGHDR* part = WSA_CMSG_FIRSTHDR(&message); part != nullptr;
       part = WSA_CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_len < WSA_CMSG_LEN(0)) break;  // left as it was: nothing is told
    arrival.Note(part->cmsg_level, part->cmsg_type, WSA_CMSG_DATA(part),
                 part->cmsg_len - WSA_CMSG_LEN(0));
  }
  return arrival;
}

// What a failed receive means for the socket: most errors say something about one
// datagram, one peer, or the moment.
ReceiveStatus StatusOfReceiveError(int error) {
  switch (error) {
    case WSAEWOULDBLOCK:
    case WSAEINTR:
    case WSAENETDOWN:
    case WSAENETUNREACH:
    case WSAENETRESET:
    case WSAECONNRESET:
    case WSAECONNREFUSED:
    case WSAEHOSTDOWN:
    case WSAEHOSTUNREACH:
    case WSAENOBUFS:
    case WSA_NOT_ENOUGH_MEMORY:
      return ReceiveStatus::kNothing;
    default:
      return ReceiveStatus::kFailed;
  }
}

// After a receive that gave nothing: the event is no longer set, unless something
// has come in since. A look by recv() also makes the event be set again by what
// comes next; that is what is said of recv(), but not of the receive that tells the
// destination.
void RearmDatagramEvent(std::intptr_t handle, std::intptr_t event) {
  WSAResetEvent(NativeEvent(event));
  char first = 0;
  if (recv(Native(handle), &first, sizeof(first), MSG_PEEK) >= 0 ||
      WSAGetLastError() == WSAEMSGSIZE) {
    WSASetEvent(NativeEvent(event));
  }
}

// Calls `receive` once more after the event was reset, so that nothing that came in
// between is slept through. Returns what the last call did.
template <typename Result, typename Receive>
Result ReceiveOrRearm(std::intptr_t event, Result nothing, Receive&& receive) {
  Result result = receive();
  if (result != nothing || WSAGetLastError() != WSAEWOULDBLOCK) return result;
  WSAResetEvent(NativeEvent(event));
  result = receive();
  if (result != nothing) WSASetEvent(NativeEvent(event));
  return result;
}

// The event of a new socket, which thereby no longer blocks. None on failure.
SocketEventHandle MakeReadableEvent(SOCKET socket, SocketType type) {
  SocketEventHandle event(WSACreateEvent());
  const long what = type == SocketType::kDatagram ? FD_READ : FD_READ | FD_ACCEPT | FD_CLOSE;
  if (event.valid() && WSAEventSelect(socket, event.get(), what) != 0) event.Close();
  return event;
}

enum class Direction { kRead, kWrite };

// A connection that is refused is not writable: it is seen by the time limit.
WaitStatus WaitFor(std::intptr_t handle, Direction direction, WaitLimit limit) {
  fd_set sockets{};
  sockets.fd_count = 1;
  sockets.fd_array[0] = Native(handle);
  timeval time{};
  if (limit) {
    time.tv_sec = static_cast<long>(*limit / 1000);
    time.tv_usec = static_cast<long>(*limit % 1000 * 1000);
  }
  const bool read = direction == Direction::kRead;
  const int ready = select(0, read ? &sockets : nullptr, read ? nullptr : &sockets, nullptr,
                           limit ? &time : nullptr);
  if (ready == SOCKET_ERROR) return WaitStatus::kFailed;
  return ready == 0 ? WaitStatus::kTimeout : WaitStatus::kSignalled;
}

ip_mreq Ipv4Membership(const SocketAddress& group, std::uint32_t interfaceAddress) {
  ip_mreq request{};
  request.imr_multiaddr = As<sockaddr_in>(group).sin_addr;
  request.imr_interface.s_addr = interfaceAddress;
  return request;
}

}  // namespace

bool StartSocketLibrary() {
  WSADATA data{};
  return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

void StopSocketLibrary() { WSACleanup(); }

std::optional<SocketAddress> ResolveStreamHost(std::u16string_view host, const char* service,
                                               std::uint32_t limitMs) {
  const auto resolve = [name = std::u16string(host),
                        port = std::u16string(service, service + std::strlen(service))]()
      -> std::optional<SocketAddress> {
    ADDRINFOW wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_protocol = IPPROTO_TCP;
    ADDRINFOW* list = nullptr;
    if (GetAddrInfoW(ToNative(name), ToNative(port), &wanted, &list) != 0) return std::nullopt;
    const std::unique_ptr<ADDRINFOW, decltype(&FreeAddrInfoW)> owner(list, &FreeAddrInfoW);
    if (list == nullptr || list->ai_addr == nullptr) return std::nullopt;
    return FromNative(list->ai_addr, list->ai_addrlen);
  };
  return ResolveWithin(limitMs, resolve);
}

Socket Socket::Create(AddressFamily family, SocketType type) {
  if (FaultHits(Fault::kSocketCreate)) return {};
  if (family == AddressFamily::kUnspecified || type == SocketType::kAny) return {};
  SocketHandle socket(::socket(ToNative(family), ToNative(type), 0));
  if (!socket.valid()) return {};
  SocketEventHandle event = MakeReadableEvent(socket.get(), type);
  if (!event.valid()) return {};
  Socket result(static_cast<std::intptr_t>(socket.Release()), family);
  result.readable_ = reinterpret_cast<std::intptr_t>(event.Release());
  if (type == SocketType::kDatagram && !PrepareDatagramSocket(result.handle_, family)) return {};
  return result;
}

void Socket::Close() {
  if (handle_ == kNoWaitHandle) return;
  closesocket(Native(std::exchange(handle_, kNoWaitHandle)));
  WSACloseEvent(NativeEvent(std::exchange(readable_, kNoWaitHandle)));
  group_ = {};
}

bool Socket::SetMulticastLoopback(bool on) {
  const bool v6 = family_ == AddressFamily::kIpv6;
  const int level = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
  const int option = v6 ? IPV6_MULTICAST_LOOP : IP_MULTICAST_LOOP;
  const std::uint8_t value = on ? 1 : 0;
  return receives_ ? SetOption(handle_, level, option, DWORD{value})
                   : SetByteOption(handle_, level, option, value);
}

bool Socket::SetMulticastHops(std::uint8_t hops) {
  return family_ == AddressFamily::kIpv6
             ? SetByteOption(handle_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, hops)
             : SetByteOption(handle_, IPPROTO_IP, IP_MULTICAST_TTL, hops);
}

bool Socket::SetMulticastInterface(std::uint32_t interfaceValue) {
  return family_ == AddressFamily::kIpv6
             ? SetOption(handle_, IPPROTO_IPV6, IPV6_MULTICAST_IF, DWORD{interfaceValue})
             : SetOption(handle_, IPPROTO_IP, IP_MULTICAST_IF, DWORD{interfaceValue});
}

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  receives_ = true;
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX));
  (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
}

bool Socket::ClaimAddress() { return SetOption(handle_, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, int{1}); }

bool Socket::Bind(const SocketAddress& local) {
  return bind(Native(handle_), Native(local), SizeOf(local)) == 0;
}

bool Socket::JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue) {
  if (FaultHits(Fault::kGroupJoin)) return false;
  if (group.family() != family_) return false;
  switch (group.size) {
    case sizeof(sockaddr_in):
      if (!SetOption(handle_, IPPROTO_IP, IP_ADD_MEMBERSHIP,
                     Ipv4Membership(group, interfaceValue))) {
        return false;
      }
      memberInterfaceIndex_ = InterfaceOfIpv4Address(interfaceValue);
      break;
    case sizeof(sockaddr_in6):
      if (!SetOption(handle_, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP,
                     Ipv6Membership(group, interfaceValue))) {
        return false;
      }
      memberInterfaceIndex_ = interfaceValue;
      break;
    default:
      return false;
  }
  group_ = group;
  interfaceValue_ = interfaceValue;
  return true;
}

bool Socket::RejoinGroup() {
  if (group_.size == 0) return false;
  // Where the membership went with its interface there is nothing to leave.
  if (family_ == AddressFamily::kIpv6) {
    (void)SetOption(handle_, IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP,
                    Ipv6Membership(group_, interfaceValue_));
  } else {
    (void)SetOption(handle_, IPPROTO_IP, IP_DROP_MEMBERSHIP,
                    Ipv4Membership(group_, interfaceValue_));
  }
  return JoinGroup(SocketAddress(group_), interfaceValue_);
}

std::optional<std::size_t> Socket::SendTo(std::span<const std::byte> data,
                                          const SocketAddress& destination) {
  const int sent = sendto(Native(handle_), reinterpret_cast<const char*>(data.data()), SizeOf(data),
                          0, Native(destination), SizeOf(destination));
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

ReceiveStatus Socket::ReceiveFrom(std::span<std::byte> buffer, std::size_t& size,
                                  SocketAddress& source) {
  const LPFN_WSARECVMSG receiveMessage = ReceiveMessage(family_).load(std::memory_order_relaxed);
  if (!valid() || receiveMessage == nullptr) return ReceiveStatus::kFailed;

  SocketAddress from;
  alignas(WSACMSGHDR) char
      control[WSA_CMSG_SPACE(sizeof(IN6_PKTINFO)) + WSA_CMSG_SPACE(sizeof(IN_PKTINFO))] = {};
  WSABUF part{static_cast<ULONG>(SizeOf(buffer)), reinterpret_cast<char*>(buffer.data())};
  WSAMSG message{};
  message.name = reinterpret_cast<sockaddr*>(from.storage.data());
  message.namelen = static_cast<int>(from.storage.size());
  message.lpBuffers = &part;
  message.dwBufferCount = 1;
  message.Control = {sizeof(control), control};
  DWORD received = 0;
  int error = 0;
  if (!FaultHits(Fault::kReceive, &error) &&
      receiveMessage(Native(handle_), &message, &received, nullptr, nullptr) != 0) {
    error = WSAGetLastError();
  }
  if (error == WSAEMSGSIZE) {
    // The datagram is larger than the buffer, which now holds its beginning.
    received = part.len;
  } else if (error != 0) {
    const ReceiveStatus status = StatusOfReceiveError(error);
    if (status == ReceiveStatus::kNothing) RearmDatagramEvent(handle_, readable_);
    return status;
  }
  // What the system does not tell is no reason to drop a datagram.
  const Arrival arrival = ArrivalOf(message);
  if (group_.size != 0 && arrival.known && !arrival.IsFor(group_, memberInterfaceIndex_)) {
    return ReceiveStatus::kNothing;
  }
  from.size = static_cast<std::uint32_t>(
      std::min(static_cast<std::size_t>(message.namelen), from.storage.size()));
  size = std::min<std::size_t>(received, buffer.size());
  source = from;
  return ReceiveStatus::kReceived;
}

Socket Socket::Accept() {
  SocketHandle socket(ReceiveOrRearm(readable_, INVALID_SOCKET,
                                     [this] { return accept(Native(handle_), nullptr, nullptr); }));
  if (!socket.valid()) return {};
  // Until now it shared the event of this one.
  SocketEventHandle event = MakeReadableEvent(socket.get(), SocketType::kStream);
  if (!event.valid()) return {};
  Socket result(static_cast<std::intptr_t>(socket.Release()), family_);
  result.readable_ = reinterpret_cast<std::intptr_t>(event.Release());
  return result;
}

ConnectStatus Socket::Connect(const SocketAddress& peer) {
  if (connect(Native(handle_), Native(peer), SizeOf(peer)) == 0) {
    return ConnectStatus::kConnected;
  }
  return WSAGetLastError() == WSAEWOULDBLOCK ? ConnectStatus::kPending : ConnectStatus::kFailed;
}

WaitStatus Socket::WaitWritable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitFor(handle_, Direction::kWrite, limit);
}

WaitStatus Socket::WaitReadable(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitFor(handle_, Direction::kRead, limit);
}

std::optional<std::size_t> Socket::Send(std::span<const std::byte> data) {
  const int sent =
      send(Native(handle_), reinterpret_cast<const char*>(data.data()), SizeOf(data), 0);
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  const int received = ReceiveOrRearm(readable_, SOCKET_ERROR, [&] {
    return recv(Native(handle_), reinterpret_cast<char*>(buffer.data()), SizeOf(buffer), 0);
  });
  if (received < 0) return std::nullopt;
  return static_cast<std::size_t>(received);
}

void Socket::ShutdownBoth() { (void)shutdown(Native(handle_), SD_BOTH); }

}  // namespace talvorn::platform
