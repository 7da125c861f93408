#include "platform/socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/network_interfaces.h"
#include "platform/posix/io.h"
#include "platform/posix/wait.h"
#include "platform/socket_common.h"

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace talvorn::platform {
namespace {

// Asks for each datagram's destination and interface, and not to get the groups that other sockets
// have joined (for IPv6 since Linux 4.20; a receive checks each datagram anyway).
bool PrepareReceiver(std::intptr_t fd, AddressFamily family) {
  if (!SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1)) return false;
  if (family == AddressFamily::kIpv6) {
    (void)SetOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
    return SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1) &&
           SetOption(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1);
  }
  (void)SetOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
  return SetOption(fd, IPPROTO_IP, IP_PKTINFO, 1);
}

Arrival ArrivalOf(msghdr& message) {
  Arrival arrival;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    arrival.Note(part->cmsg_level, part->cmsg_type, CMSG_DATA(part), part->cmsg_len - CMSG_LEN(0));
  }
  return arrival;
}

// Most errors of a receive say something about one datagram, one peer, or the moment.
constexpr int kPassingErrors[] = {EAGAIN,       EINTR,      ENETDOWN,     ENETUNREACH,
                                  ENETRESET,    ECONNRESET, ECONNREFUSED, EHOSTDOWN,
                                  EHOSTUNREACH, EMSGSIZE,   ENOBUFS,      ENOMEM};

// Nothing was received, or the socket is dead.
std::optional<std::size_t> NoneFor(int error) {
  if (std::ranges::find(kPassingErrors, error) == std::end(kPassingErrors)) return std::nullopt;
  return 0;
}

}  // namespace

bool StartSocketLibrary() { return true; }
void StopSocketLibrary() {}

Socket Socket::Create(AddressFamily family, SocketType type) {
  if (FaultHits(Fault::kSocketCreate)) return {};
  const int fd = socket(ToNative(family), ToNative(type) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  return fd < 0 ? Socket() : Socket(fd, family);
}

Socket Socket::CreateReceiver(AddressFamily family) {
  Socket result = Create(family, SocketType::kDatagram);
  return result.valid() && PrepareReceiver(result.handle_, family) ? std::move(result) : Socket();
}

void Socket::Close() {
  if (handle_ == kNoWaitHandle) return;
  close(Native(std::exchange(handle_, kNoWaitHandle)));
  membership_.reset();
}

bool Socket::SetMulticastLoopback(bool on) {
  const MulticastOptions& options = OptionsOf(family_);
  return SetOption(handle_, options.level, options.loopback, int{on});
}

bool Socket::SetMulticastHops(std::uint8_t hops) {
  const MulticastOptions& options = OptionsOf(family_);
  return SetOption(handle_, options.level, options.hops, int{hops});
}

bool Socket::SetMulticastInterface(std::uint32_t interfaceValue) {
  const MulticastOptions& options = OptionsOf(family_);
  if (family_ == AddressFamily::kIpv6)
    return SetOption(handle_, options.level, options.from, static_cast<int>(interfaceValue));
  // The address as well: datagrams then leave with it as their source, also from
  // an interface that has several. Without an index the system looks for one.
  return SetMembership(options.from, {{}, interfaceValue, InterfaceOfIpv4Address(interfaceValue)});
}

void Socket::EnlargeReceiveBuffer(std::uint32_t bytes) {
  // The system doubles the value to account for its own overhead.
  const int value = static_cast<int>(std::min<std::uint32_t>(bytes, INT_MAX / 2));
  if (!SetOption(handle_, SOL_SOCKET, SO_RCVBUFFORCE, value)) {
    (void)SetOption(handle_, SOL_SOCKET, SO_RCVBUF, value);
  }
}

// A listener has its port for itself with this option too.
bool Socket::ClaimAddress() { return SetOption(handle_, SOL_SOCKET, SO_REUSEADDR, 1); }

BindOutcome Socket::Bind(const SocketAddress& local) {
  if (bind(Native(handle_), Native(local), local.size) == 0) return BindOutcome::kBound;
  switch (errno) {
    case EADDRINUSE:
      return BindOutcome::kInUse;
    case EACCES:
      return BindOutcome::kForbidden;
    default:
      return BindOutcome::kFailed;
  }
}

std::optional<std::size_t> Socket::SendTo(std::span<const std::byte> data,
                                          const SocketAddress& destination) {
  return Transferred(Retried([&] {
    return sendto(Native(handle_), data.data(), data.size(), MSG_NOSIGNAL, Native(destination),
                  destination.size);
  }));
}

std::optional<std::size_t> Socket::Receive(Datagrams& datagrams) {
  int injected = 0;
  if (FaultHits(Fault::kReceive, &injected)) return NoneFor(injected);

  struct Control {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo))];
  };
  std::array<Control, Datagrams::kMost> controls;
  std::array<iovec, Datagrams::kMost> parts;
  std::array<mmsghdr, Datagrams::kMost> messages;
  for (std::size_t i = 0; i < Datagrams::kMost; ++i) {
    SocketAddress& source = datagrams.sources_[i];
    parts[i] = {datagrams.bytes_[i].data(), Datagrams::kLargest};
    messages[i] = {{source.storage.data(), static_cast<socklen_t>(source.storage.size()), &parts[i],
                    1, controls[i].bytes, sizeof(Control), 0},
                   0};
  }
  const int received = recvmmsg(Native(handle_), messages.data(), messages.size(), 0, nullptr);
  if (received < 0) return NoneFor(errno);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(received); ++i) {
    msghdr& message = messages[i].msg_hdr;
    const Arrival arrival = ArrivalOf(message);
    if (membership_ &&
        (!arrival.known || !arrival.IsFor(membership_->group, membership_->interfaceIndex))) {
      continue;
    }
    datagrams.sizes_[i] = messages[i].msg_len;
    datagrams.sources_[i].size = message.msg_namelen;
    datagrams.Keep(i, kept++);
  }
  return kept;
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

WaitStatus Socket::WaitFor(Readiness readiness, WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  return WaitForDescriptor(Native(handle_), readiness == Readiness::kReadable ? POLLIN : POLLOUT,
                           limit);
}

std::optional<std::size_t> Socket::Send(std::span<const std::byte> data) {
  return Transferred(
      Retried([&] { return send(Native(handle_), data.data(), data.size(), MSG_NOSIGNAL); }));
}

std::optional<std::size_t> Socket::Receive(std::span<std::byte> buffer) {
  return Transferred(
      Retried([&] { return recv(Native(handle_), buffer.data(), buffer.size(), 0); }));
}

void Socket::ShutdownBoth() { (void)shutdown(Native(handle_), SHUT_RDWR); }

}  // namespace talvorn::platform
