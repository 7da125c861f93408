// Sockets: multicast datagrams and TCP connections. Every socket is non-blocking;
// who wants to wait uses WaitForAny on the socket, or WaitWritable.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/waitable.h"

namespace talvorn::platform {

// Counted per call. Version 2.0 of Winsock; always there on Linux.
[[nodiscard]] bool StartSocketLibrary();
void StopSocketLibrary();

enum class AddressFamily { kUnspecified, kIpv4, kIpv6 };
enum class SocketType { kAny, kDatagram, kStream };

// An address without its port. An IPv4 address stands as the IPv6 address that it maps
// to (RFC 4291, ::ffff:192.168.1.10).
struct HostAddress {
  std::array<std::uint8_t, 16> bytes{};
  std::uint32_t scope = 0;  // interface index of a link-local address; 0 for any other

  // `address` in network byte order.
  [[nodiscard]] static HostAddress Ipv4(std::uint32_t address);
  [[nodiscard]] static HostAddress Ipv6(const std::array<std::uint8_t, 16>& address,
                                        std::uint32_t interfaceIndex);
  auto operator<=>(const HostAddress&) const = default;
};

// A native socket address: family, port, address, scope.
struct SocketAddress {
  std::array<std::byte, 128> storage{};
  std::uint32_t size = 0;

  [[nodiscard]] AddressFamily family() const;  // kUnspecified for any other family
  // `address` in network byte order, `port` in host byte order.
  [[nodiscard]] static SocketAddress Ipv4(std::uint32_t address, std::uint16_t port);
  [[nodiscard]] static SocketAddress Ipv6(const std::array<std::uint8_t, 16>& address,
                                          std::uint32_t scopeId, std::uint16_t port);
  // In network byte order; 0 for another family.
  [[nodiscard]] std::uint32_t ipv4() const;
  [[nodiscard]] std::uint16_t port() const;
  [[nodiscard]] HostAddress host() const;  // all zero for another family
};

struct ResolveHints {
  bool numericHost = false;
  bool passive = false;
  AddressFamily family = AddressFamily::kUnspecified;
  SocketType type = SocketType::kAny;
};
struct ResolvedAddress {
  SocketAddress address;
  AddressFamily family = AddressFamily::kUnspecified;
  SocketType type = SocketType::kAny;
};
// First result of the system's resolver; none when it finds nothing. A null host
// means the wildcard address (with `passive`).
[[nodiscard]] std::optional<ResolvedAddress> ResolveAddress(const char* host, const char* service,
                                                            const ResolveHints& hints);
// First IPv4 stream address of a host name given in UTF-16; none when the system's
// resolver finds nothing, or takes longer than `limitMs`.
[[nodiscard]] std::optional<SocketAddress> ResolveStreamHost(std::u16string_view host,
                                                             const char* service,
                                                             std::uint32_t limitMs);

// Numeric host text, link-local IPv6 addresses with their scope; empty when it
// would need more than `capacity` bytes with its terminator.
[[nodiscard]] std::string NumericHost(const SocketAddress& address, std::size_t capacity);

// "192.168.1.10" from an address in network byte order.
[[nodiscard]] std::string Ipv4Text(std::uint32_t address);
// As the C library's inet_addr: 0xFFFFFFFF for a text that is no address.
[[nodiscard]] std::uint32_t ParseIpv4(const char* text);

// kNothing: no datagram waits, or the one that waited was not addressed to the
// socket's group or came in on another interface; also errors that pass by
// themselves. kFailed: the socket is dead.
enum class ReceiveStatus { kReceived, kNothing, kFailed };

enum class ConnectStatus { kConnected, kPending, kFailed };

class Socket final : public Waitable {
 public:
  Socket() = default;  // none
  ~Socket();
  Socket(Socket&& other) noexcept;
  Socket& operator=(Socket&& other) noexcept;

  [[nodiscard]] static Socket Create(AddressFamily family, SocketType type);

  [[nodiscard]] bool valid() const { return handle_ != kNoWaitHandle; }
  void Close();

  [[nodiscard]] bool SetMulticastLoopback(bool on);
  [[nodiscard]] bool SetMulticastHops(std::uint8_t hops);
  // `interfaceValue`: an IPv4 address in network byte order, or an IPv6 interface
  // index, as the socket's family demands.
  [[nodiscard]] bool SetMulticastInterface(std::uint32_t interfaceValue);
  // Datagrams: several sockets may be bound to one port.
  [[nodiscard]] bool SetReuseAddress();
  // Streams: nobody else listens on the port, but connections of a listener before this
  // one that have not faded away yet are no obstacle.
  [[nodiscard]] bool ClaimAddress();
  // Asks for this many bytes of receive buffer, past the system's limit where
  // privileged. Best effort.
  void EnlargeReceiveBuffer(std::uint32_t bytes);
  [[nodiscard]] bool Bind(const SocketAddress& local);
  // Where it is bound, or where the peer of a connection reached it; size 0 when
  // there is no such address.
  [[nodiscard]] SocketAddress LocalAddress() const;

  // Joins `group` on one interface; from then on Receive gives only datagrams that
  // were sent to that group and came in on that interface.
  [[nodiscard]] bool JoinGroup(const SocketAddress& group, std::uint32_t interfaceValue);
  // Joins again after the interface was made anew under the same value; false when
  // it is not there. By the thread that receives.
  bool RejoinGroup();

  // Number of bytes sent; none on failure.
  [[nodiscard]] std::optional<std::size_t> SendTo(std::span<const std::byte> data,
                                                  const SocketAddress& destination);
  // One datagram; one that is larger than `buffer` delivers its beginning. `size`
  // and `source` are set when kReceived.
  [[nodiscard]] ReceiveStatus ReceiveFrom(std::span<std::byte> buffer, std::size_t& size,
                                          SocketAddress& source);

  // Streams. Under Wine a wait for connections may now and then not be told of one:
  // who waits for them looks from time to time.
  [[nodiscard]] bool Listen(int backlog);
  [[nodiscard]] Socket Accept();  // none when no connection waits
  [[nodiscard]] ConnectStatus Connect(const SocketAddress& peer);
  // The outcome of a pending connect once the socket is writable.
  [[nodiscard]] bool ConnectSucceeded() const;
  [[nodiscard]] WaitStatus WaitWritable(WaitLimit limit) const;
  [[nodiscard]] WaitStatus WaitReadable(WaitLimit limit) const;
  // Bytes sent in one call; none on failure or when nothing could be sent now.
  [[nodiscard]] std::optional<std::size_t> Send(std::span<const std::byte> data);
  // Bytes received, 0 when the peer has closed; none on failure.
  [[nodiscard]] std::optional<std::size_t> Receive(std::span<std::byte> buffer);
  void ShutdownBoth();

  [[nodiscard]] std::intptr_t waitHandle() const override {
    return readable_ == kNoWaitHandle ? handle_ : readable_;
  }

 private:
  explicit Socket(std::intptr_t handle, AddressFamily family) : handle_(handle), family_(family) {}

  std::intptr_t handle_ = kNoWaitHandle;
  std::intptr_t readable_ = kNoWaitHandle;  // what is waited on where it is not the socket
  AddressFamily family_ = AddressFamily::kUnspecified;
  SocketAddress group_;                     // joined group; size 0 for none
  std::uint32_t interfaceValue_ = 0;        // as given to JoinGroup
  std::uint32_t memberInterfaceIndex_ = 0;  // where the membership stands
  [[maybe_unused]] bool receives_ = false;  // a large receive buffer was asked for
};

}  // namespace talvorn::platform
