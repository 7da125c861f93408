// Each socket has an event of Winsock, which stands for its readiness to be read in
// waits: set while something may wait, reset by the receive (or accept) that finds
// nothing.
#include "platform/socket.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/address_owner.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= sizeof(SocketAddress::storage));

// The options of Winsock 2; those of Winsock 1 have the same names and other values.
static_assert(IP_MULTICAST_IF == 9 && IP_MULTICAST_TTL == 10 && IP_MULTICAST_LOOP == 11 &&
              IP_ADD_MEMBERSHIP == 12);

SOCKET Native(std::intptr_t handle) { return static_cast<SOCKET>(handle); }

WSAEVENT NativeEvent(std::intptr_t event) { return reinterpret_cast<WSAEVENT>(event); }

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

int NativeSize(const SocketAddress& address) { return static_cast<int>(address.size); }

// Winsock takes sizes as int; the rest of a stream's data goes with the next call.
int NativeSize(std::span<const std::byte> bytes) {
  return static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
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
  return setsockopt(Native(handle), level, option, reinterpret_cast<const char*>(&value),
                    sizeof(value)) == 0;
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

// Where a datagram was sent to and on which interface it came in.
struct Arrival {
  bool known = false;
  std::uint32_t interfaceIndex = 0;
  in_addr ipv4{};
  in6_addr ipv6{};
};

Arrival ArrivalOf(WSAMSG& message) {
  Arrival arrival;
  for (WSACMSGHDR* part = WSA_CMSG_FIRSTHDR(&message); part != nullptr;
       part = WSA_CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO &&
        part->cmsg_len >= WSA_CMSG_LEN(sizeof(IN_PKTINFO))) {
      IN_PKTINFO info{};
      std::memcpy(&info, WSA_CMSG_DATA(part), sizeof(info));
      arrival.known = true;
      arrival.interfaceIndex = info.ipi_ifindex;
      arrival.ipv4 = info.ipi_addr;
    } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO &&
               part->cmsg_len >= WSA_CMSG_LEN(sizeof(IN6_PKTINFO))) {
      IN6_PKTINFO info{};
      std::memcpy(&info, WSA_CMSG_DATA(part), sizeof(info));
      arrival.known = true;
      arrival.interfaceIndex = info.ipi6_ifindex;
      arrival.ipv6 = info.ipi6_addr;
    }
  }
  return arrival;
}

// What the system does not tell is no reason to drop a datagram.
bool IsForMember(const Arrival& arrival, const SocketAddress& group, std::uint32_t interfaceIndex) {
  if (!arrival.known) return true;
  if (interfaceIndex != 0 && arrival.interfaceIndex != 0 &&
      arrival.interfaceIndex != interfaceIndex) {
    return false;
  }
  if (group.family() == AddressFamily::kIpv4) return arrival.ipv4.s_addr == group.ipv4();
  const in6_addr wanted = As<sockaddr_in6>(group).sin6_addr;
  return std::memcmp(&arrival.ipv6, &wanted, sizeof(wanted)) == 0;
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
    case WSAEMSGSIZE:
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

}  // namespace

bool StartSocketLibrary() {
  WSADATA data{};
  return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

void StopSocketLibrary() { WSACleanup(); }

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
    ADDRINFOW wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_protocol = IPPROTO_TCP;
    const std::u16string wideHost(host);
    const std::u16string wideService(service, service + std::strlen(service));
    ADDRINFOW* list = nullptr;
    if (GetAddrInfoW(ToNative(wideHost), ToNative(wideService), &wanted, &list) != 0) {
      return std::nullopt;
    }
    const std::unique_ptr<ADDRINFOW, decltype(&FreeAddrInfoW)> owner(list, &FreeAddrInfoW);
    if (list == nullptr || list->ai_addr == nullptr) return std::nullopt;
    return FromNative(list->ai_addr, list->ai_addrlen);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::string NumericHost(const SocketAddress& address, std::size_t capacity) {
  char text[NI_MAXHOST];
  if (getnameinfo(Native(address), NativeSize(address), text, sizeof(text), nullptr, 0,
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

bool Socket::SetReuseAddress() { return SetOption(handle_, SOL_SOCKET, SO_REUSEADDR, DWORD{1}); }

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  receives_ = true;
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX));
  (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
}

bool Socket::Bind(const SocketAddress& local) {
  return bind(Native(handle_), Native(local), NativeSize(local)) == 0;
}

SocketAddress Socket::LocalAddress() const {
  sockaddr_storage address{};
  int size = sizeof(address);
  if (getsockname(Native(handle_), reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return FromNative(&address, static_cast<std::size_t>(size));
}

bool Socket::JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue) {
  if (group.family() != family_) return false;
  switch (group.size) {
    case sizeof(sockaddr_in): {
      ip_mreq request{};
      request.imr_multiaddr = As<sockaddr_in>(group).sin_addr;
      request.imr_interface.s_addr = interfaceValue;
      if (!SetOption(handle_, IPPROTO_IP, IP_ADD_MEMBERSHIP, request)) return false;
      memberInterfaceIndex_ = InterfaceOfIpv4Address(interfaceValue);
      break;
    }
    case sizeof(sockaddr_in6): {
      ipv6_mreq request{};
      request.ipv6mr_multiaddr = As<sockaddr_in6>(group).sin6_addr;
      request.ipv6mr_interface = interfaceValue;
      if (!SetOption(handle_, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, request)) return false;
      memberInterfaceIndex_ = interfaceValue;
      break;
    }
    default:
      return false;
  }
  group_ = group;
  interfaceValue_ = interfaceValue;
  return true;
}

// Memberships stay with an interface that goes and comes back.
bool Socket::RejoinGroup() { return group_.size != 0; }

std::optional<std::size_t> Socket::SendTo(std::span<const std::byte> data,
                                          const SocketAddress& destination) {
  const int sent = sendto(Native(handle_), reinterpret_cast<const char*>(data.data()),
                          NativeSize(data), 0, Native(destination), NativeSize(destination));
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

ReceiveStatus Socket::ReceiveFrom(std::span<std::byte> buffer, std::size_t& size,
                                  SocketAddress& source) {
  int injected = 0;
  if (FaultHits(Fault::kReceive, &injected)) return StatusOfReceiveError(injected);
  const LPFN_WSARECVMSG receiveMessage = ReceiveMessage(family_).load(std::memory_order_relaxed);
  if (!valid() || receiveMessage == nullptr) return ReceiveStatus::kFailed;

  SocketAddress from;
  alignas(WSACMSGHDR) char
      control[WSA_CMSG_SPACE(sizeof(IN6_PKTINFO)) + WSA_CMSG_SPACE(sizeof(IN_PKTINFO))];
  WSABUF part{static_cast<ULONG>(NativeSize(buffer)), reinterpret_cast<char*>(buffer.data())};
  WSAMSG message{};
  message.name = reinterpret_cast<sockaddr*>(from.storage.data());
  message.namelen = static_cast<int>(from.storage.size());
  message.lpBuffers = &part;
  message.dwBufferCount = 1;
  message.Control = {sizeof(control), control};
  DWORD received = 0;
  if (receiveMessage(Native(handle_), &message, &received, nullptr, nullptr) != 0) {
    const int error = WSAGetLastError();
    if (error != WSAEMSGSIZE) {
      const ReceiveStatus status = StatusOfReceiveError(error);
      if (status == ReceiveStatus::kNothing) RearmDatagramEvent(handle_, readable_);
      return status;
    }
    // The datagram is larger than the buffer, which now holds its beginning.
    received = part.len;
  }
  if (group_.size != 0 && !IsForMember(ArrivalOf(message), group_, memberInterfaceIndex_)) {
    return ReceiveStatus::kNothing;
  }
  from.size = static_cast<std::uint32_t>(
      std::min(static_cast<std::size_t>(message.namelen), from.storage.size()));
  size = std::min<std::size_t>(received, buffer.size());
  source = from;
  return ReceiveStatus::kReceived;
}

bool Socket::Listen(int backlog) { return listen(Native(handle_), backlog) == 0; }

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
  if (connect(Native(handle_), Native(peer), NativeSize(peer)) == 0) {
    return ConnectStatus::kConnected;
  }
  return WSAGetLastError() == WSAEWOULDBLOCK ? ConnectStatus::kPending : ConnectStatus::kFailed;
}

bool Socket::ConnectSucceeded() const {
  int error = 0;
  int size = sizeof(error);
  return getsockopt(Native(handle_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error),
                    &size) == 0 &&
         error == 0;
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
      send(Native(handle_), reinterpret_cast<const char*>(data.data()), NativeSize(data), 0);
  if (sent < 0) return std::nullopt;
  return static_cast<std::size_t>(sent);
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  const int received = ReceiveOrRearm(readable_, SOCKET_ERROR, [&] {
    return recv(Native(handle_), reinterpret_cast<char*>(buffer.data()), NativeSize(buffer), 0);
  });
  if (received < 0) return std::nullopt;
  return static_cast<std::size_t>(received);
}

void Socket::ShutdownBoth() { (void)shutdown(Native(handle_), SD_BOTH); }

}  // namespace talvorn::platform
