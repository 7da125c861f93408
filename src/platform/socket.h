// Sockets: multicast datagrams and TCP connections. Every socket is non-blocking;
// who wants to wait uses WaitForAny on one that receives, or WaitWritable.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>

#include "platform/address.h"
#include "platform/waitable.h"

namespace talvorn::platform {

// Counted per call. Version 2.0 of Winsock; always there on Linux.
[[nodiscard]] bool StartSocketLibrary();
void StopSocketLibrary();

enum class SocketType { kDatagram, kStream };

// kInUse: another program has the port for itself. kForbidden: the account may not
// have it. The system may tell neither of them from another failure.
enum class BindOutcome { kBound, kInUse, kForbidden, kFailed };

enum class ConnectStatus { kConnected, kPending, kFailed };

enum class Readiness { kReadable, kWritable };

// Room for the datagrams that one receive takes.
class Datagrams {
 public:
  static constexpr std::size_t kMost = 16;
  static constexpr std::size_t kLargest = 1'500;  // a larger one leaves its beginning

  Datagrams() {}  // room that is not used yet costs no memory

  [[nodiscard]] std::span<const std::byte> operator[](std::size_t at) const {
    return {bytes_[at].data(), sizes_[at]};
  }
  [[nodiscard]] const SocketAddress& source(std::size_t at) const { return sources_[at]; }

 private:
  friend class Socket;

  // Keeps datagram `from` as datagram `to`, which does not come after it.
  void Keep(std::size_t from, std::size_t to);

  std::array<std::array<std::byte, kLargest>, kMost> bytes_;
  std::array<std::size_t, kMost> sizes_;
  std::array<SocketAddress, kMost> sources_;
};

class Socket final : public Waitable {
 public:
  Socket() = default;  // none
  ~Socket();
  Socket(Socket&& other) noexcept { *this = std::move(other); }
  Socket& operator=(Socket&& other) noexcept;

  // For a connection, or for sending datagrams only.
  [[nodiscard]] static Socket Create(AddressFamily family, SocketType type);
  // For datagrams that are received; several may be bound to one port.
  [[nodiscard]] static Socket CreateReceiver(AddressFamily family);

  [[nodiscard]] bool valid() const { return handle_ != kNoWaitHandle; }
  void Close();

  [[nodiscard]] bool SetMulticastLoopback(bool on);
  [[nodiscard]] bool SetMulticastHops(std::uint8_t hops);
  // `interfaceValue`: an IPv4 address in network byte order, or an IPv6 interface
  // index, as the socket's family demands.
  [[nodiscard]] bool SetMulticastInterface(std::uint32_t interfaceValue);
  // Streams: nobody else listens on the port, but connections of a listener before this
  // one that have not faded away yet are no obstacle.
  [[nodiscard]] bool ClaimAddress();
  // Asks for this many bytes of receive buffer, past the system's limit where
  // privileged. Best effort.
  void EnlargeReceiveBuffer(std::uint32_t bytes);
  [[nodiscard]] BindOutcome Bind(const SocketAddress& local);
  // Where it is bound, or where the peer of a connection reached it; size 0 when
  // there is no such address.
  [[nodiscard]] SocketAddress LocalAddress() const;

  // Joins `group` on one interface; from then on only datagrams that were sent to that
  // group and came in on that interface are received.
  [[nodiscard]] bool JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue);
  // Joins again after the interface was made anew under the same value; false when
  // it is not there. By the thread that receives.
  bool RejoinGroup();

  // Number of bytes sent; none on failure.
  [[nodiscard]] std::optional<std::size_t> SendTo(std::span<const std::byte> data,
                                                  const SocketAddress& destination);
  // Takes the datagrams that wait, as many as there is room for. Their number, 0 also on an error
  // that passes by itself; none when the socket is dead.
  [[nodiscard]] std::optional<std::size_t> Receive(Datagrams& datagrams);

  // Streams. Under Wine a wait for connections may now and then not be told of one:
  // who waits for them looks from time to time.
  [[nodiscard]] bool Listen(int backlog);
  [[nodiscard]] Socket Accept();  // none when no connection waits
  [[nodiscard]] ConnectStatus Connect(const SocketAddress& peer);
  // The outcome of a pending connect once the socket is writable.
  [[nodiscard]] bool ConnectSucceeded() const;
  [[nodiscard]] WaitStatus WaitFor(Readiness readiness, WaitLimit limit) const;
  // Bytes sent in one call; none on failure or when nothing could be sent now.
  [[nodiscard]] std::optional<std::size_t> Send(std::span<const std::byte> data);
  // Bytes received, 0 when the peer has closed; none on failure.
  [[nodiscard]] std::optional<std::size_t> Receive(std::span<std::byte> buffer);
  void ShutdownBoth();

  [[nodiscard]] std::intptr_t waitHandle() const override {
    return readable_ == kNoWaitHandle ? handle_ : readable_;
  }

 private:
  struct Membership {
    SocketAddress group;
    std::uint32_t interfaceValue = 0;  // as given to JoinGroup
    std::uint32_t interfaceIndex = 0;  // where it stands; 0 where that is not known
  };

  explicit Socket(std::intptr_t handle, AddressFamily family) : handle_(handle), family_(family) {}

  [[nodiscard]] bool SetMembership(int option, const Membership& membership) const;

  std::intptr_t handle_ = kNoWaitHandle;
  std::intptr_t readable_ = kNoWaitHandle;  // what is waited on where it is not the socket
  AddressFamily family_ = AddressFamily::kUnspecified;
  std::optional<Membership> membership_;
};

}  // namespace talvorn::platform
