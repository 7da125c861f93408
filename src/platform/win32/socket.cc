// Each socket that receives has a Winsock event to wait on: set while there may be something
// to read, reset by the receive (or accept) that finds nothing.
#include "platform/socket.h"

#include <atomic>
#include <climits>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/socket_common.h"

namespace talvorn::platform {
namespace {

// The option values of Winsock 2; those of Winsock 1 differ under the same names.
static_assert(IP_MULTICAST_IF == 9 && IP_MULTICAST_TTL == 10 && IP_MULTICAST_LOOP == 11 &&
              IP_ADD_MEMBERSHIP == 12);

WSAEVENT NativeEvent(std::intptr_t event) { return reinterpret_cast<WSAEVENT>(event); }

// A size as Winsock takes it. The rest of a stream's data goes with the next call.
int SizeOf(std::span<const std::byte> bytes) {
  return static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
}

// One byte, as senders have always given it; a DWORD where Windows refuses that.
bool SetByteOption(std::intptr_t handle, int level, int option, std::uint8_t value) {
  return SetOption(handle, level, option, value) || SetOption(handle, level, option, DWORD{value});
}

// WSARecvMsg, which tells where a datagram was sent to. All sockets of a family share it.
std::atomic<LPFN_WSARECVMSG>& ReceiveMessage(AddressFamily family) {
  static std::atomic<LPFN_WSARECVMSG> functions[2];
  return functions[family == AddressFamily::kIpv6];
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

// Asks for each datagram's destination and interface, and for no errors when nobody listened where
// one of ours went. Best effort: a socket gets only the groups it has joined.
bool PrepareReceiver(std::intptr_t handle, AddressFamily family) {
  if (!FindReceiveMessage(Native(handle), family) ||
      !SetOption(handle, SOL_SOCKET, SO_REUSEADDR, int{1})) {
    return false;
  }
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
    if (part->cmsg_len < WSA_CMSG_LEN(0)) break;  // Windows did not fill it in
    arrival.Note(part->cmsg_level, part->cmsg_type, WSA_CMSG_DATA(part),
                 part->cmsg_len - WSA_CMSG_LEN(0));
  }
  return arrival;
}

// Receive errors that concern one datagram, one peer or the moment.
constexpr int kPassingErrors[] = {
    WSAEWOULDBLOCK,  WSAEINTR,      WSAENETDOWN,          WSAENETUNREACH,
    WSAENETRESET,    WSAECONNRESET, WSAECONNREFUSED,      WSAEHOSTDOWN,
    WSAEHOSTUNREACH, WSAENOBUFS,    WSA_NOT_ENOUGH_MEMORY};

// Resets the event after a receive that gave nothing, unless something has come in since.
// The peek by recv() also re-arms the event: documented for recv(), not for WSARecvMsg.
void RearmDatagramEvent(std::intptr_t handle, std::intptr_t event) {
  WSAResetEvent(NativeEvent(event));
  char first = 0;
  if (recv(Native(handle), &first, sizeof(first), MSG_PEEK) >= 0 ||
      WSAGetLastError() == WSAEMSGSIZE) {
    WSASetEvent(NativeEvent(event));
  }
}

// Calls `receive` once more after the reset of the event, so that nothing that came in
// between is missed. Returns what the last call did.
template <typename Result, typename Receive>
Result ReceiveOrRearm(std::intptr_t event, Result nothing, Receive&& receive) {
  Result result = receive();
  if (result != nothing || WSAGetLastError() != WSAEWOULDBLOCK) return result;
  WSAResetEvent(NativeEvent(event));
  result = receive();
  if (result != nothing) WSASetEvent(NativeEvent(event));
  return result;
}

// What wakes a connection or a listener.
constexpr long kStreamEvents = FD_READ | FD_ACCEPT | FD_CLOSE;

// Gives a new socket its event, after which it no longer blocks.
bool MakeReadable(std::intptr_t handle, std::intptr_t& readable, long what) {
  const WSAEVENT event = WSACreateEvent();
  if (event == WSA_INVALID_EVENT) return false;
  readable = reinterpret_cast<std::intptr_t>(event);  // closed with the socket
  return WSAEventSelect(Native(handle), event, what) == 0;
}

bool StopBlocking(std::intptr_t handle) {
  u_long nonBlocking = 1;
  return ioctlsocket(Native(handle), FIONBIO, &nonBlocking) == 0;
}

}  // namespace

bool StartSocketLibrary() {
  WSADATA data{};
  return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

void StopSocketLibrary() { WSACleanup(); }

Socket Socket::Create(AddressFamily family, SocketType type) {
  if (FaultHits(Fault::kSocketCreate)) return {};
  Socket result(static_cast<std::intptr_t>(socket(ToNative(family), ToNative(type), 0)), family);
  if (!result.valid()) return {};
  const bool ready = type == SocketType::kDatagram
                         ? StopBlocking(result.handle_)
                         : MakeReadable(result.handle_, result.readable_, kStreamEvents);
  return ready ? std::move(result) : Socket();
}

Socket Socket::CreateReceiver(AddressFamily family) {
  Socket result = Create(family, SocketType::kDatagram);
  const bool ready = result.valid() && PrepareReceiver(result.handle_, family) &&
                     MakeReadable(result.handle_, result.readable_, FD_READ);
  return ready ? std::move(result) : Socket();
}

void Socket::Close() {
  if (handle_ == kNoWaitHandle) return;
  closesocket(Native(std::exchange(handle_, kNoWaitHandle)));
  if (readable_ != kNoWaitHandle)
    WSACloseEvent(NativeEvent(std::exchange(readable_, kNoWaitHandle)));
  membership_.reset();
}

bool Socket::SetMulticastLoopback(bool on) {
  const MulticastOptions& options = OptionsOf(family_);
  const std::uint8_t value = on ? 1 : 0;
  const bool receives = readable_ != kNoWaitHandle;
  return receives ? SetOption(handle_, options.level, options.loopback, DWORD{value})
                  : SetByteOption(handle_, options.level, options.loopback, value);
}

bool Socket::SetMulticastHops(std::uint8_t hops) {
  const MulticastOptions& options = OptionsOf(family_);
  return SetByteOption(handle_, options.level, options.hops, hops);
}

bool Socket::SetMulticastInterface(std::uint32_t interfaceValue) {
  const MulticastOptions& options = OptionsOf(family_);
  return SetOption(handle_, options.level, options.from, DWORD{interfaceValue});
}

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX));
  (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
}

bool Socket::ClaimAddress() { return SetOption(handle_, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, int{1}); }

BindOutcome Socket::Bind(const SocketAddress& local) {
  return bind(Native(handle_), Native(local), SizeOf(local)) == 0 ? BindOutcome::kBound
                                                                  : BindOutcome::kFailed;
}

std::optional<std::size_t> Socket::SendTo(std::span<const std::byte> data,
                                          const SocketAddress& destination) {
  return Transferred(sendto(Native(handle_), reinterpret_cast<const char*>(data.data()),
                            SizeOf(data), 0, Native(destination), SizeOf(destination)));
}

std::optional<std::size_t> Socket::Receive(Datagrams& datagrams) {
  const LPFN_WSARECVMSG receiveMessage = ReceiveMessage(family_).load(std::memory_order_relaxed);
  if (!valid() || receiveMessage == nullptr) return std::nullopt;

  std::size_t kept = 0;
  for (std::size_t i = 0; i < Datagrams::kMost; ++i) {
    SocketAddress& source = datagrams.sources_[kept];
    alignas(WSACMSGHDR) char
        control[WSA_CMSG_SPACE(sizeof(IN6_PKTINFO)) + WSA_CMSG_SPACE(sizeof(IN_PKTINFO))] = {};
    WSABUF part{Datagrams::kLargest, reinterpret_cast<char*>(datagrams.bytes_[kept].data())};
    WSAMSG message{};
    message.name = reinterpret_cast<sockaddr*>(source.storage.data());
    message.namelen = static_cast<int>(source.storage.size());
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
      // A larger datagram: the buffer holds its beginning.
      received = part.len;
    } else if (std::ranges::find(kPassingErrors, error) != std::end(kPassingErrors)) {
      RearmDatagramEvent(handle_, readable_);
      break;
    } else if (error != 0) {
      // Return what came before; the event stays set, so the next receive meets the error.
      if (kept == 0) return std::nullopt;
      break;
    }
    // A datagram without a known destination is kept.
    const Arrival arrival = ArrivalOf(message);
    if (membership_ && arrival.known &&
        !arrival.IsFor(membership_->group, membership_->interfaceIndex)) {
      continue;
    }
    datagrams.sizes_[kept] = received;
    source.size = static_cast<std::uint32_t>(message.namelen);
    ++kept;
  }
  return kept;
}

Socket Socket::Accept() {
  Socket result(
      static_cast<std::intptr_t>(ReceiveOrRearm(
          readable_, INVALID_SOCKET, [this] { return accept(Native(handle_), nullptr, nullptr); })),
      family_);
  // Until it has an event of its own it shares the listener's.
  const bool ready =
      result.valid() && MakeReadable(result.handle_, result.readable_, kStreamEvents);
  return ready ? std::move(result) : Socket();
}

ConnectStatus Socket::Connect(const SocketAddress& peer) {
  if (connect(Native(handle_), Native(peer), SizeOf(peer)) == 0) {
    return ConnectStatus::kConnected;
  }
  return WSAGetLastError() == WSAEWOULDBLOCK ? ConnectStatus::kPending : ConnectStatus::kFailed;
}

// A refused connection does not become writable: the caller's limit ends the wait.
WaitStatus Socket::WaitFor(Readiness readiness, WaitLimit limit) const {
  fd_set sockets{1, {Native(handle_)}};
  const bool read = readiness == Readiness::kReadable;
  const std::uint32_t ms = limit.value_or(0);
  timeval time{static_cast<long>(ms / 1000), static_cast<long>(ms % 1000 * 1000)};
  const int ready = select(0, read ? &sockets : nullptr, read ? nullptr : &sockets, nullptr,
                           limit ? &time : nullptr);
  if (ready == SOCKET_ERROR) return WaitStatus::kFailed;
  return ready == 0 ? WaitStatus::kTimeout : WaitStatus::kSignalled;
}

std::optional<std::size_t> Socket::Send(std::span<const std::byte> data) {
  return Transferred(
      send(Native(handle_), reinterpret_cast<const char*>(data.data()), SizeOf(data), 0));
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  return Transferred(ReceiveOrRearm(readable_, SOCKET_ERROR, [&] {
    return recv(Native(handle_), reinterpret_cast<char*>(buffer.data()), SizeOf(buffer), 0);
  }));
}

void Socket::ShutdownBoth() { (void)shutdown(Native(handle_), SD_BOTH); }

}  // namespace talvorn::platform
