// What the sockets of both systems have in common: native addresses and options, and
// which datagrams are a group member's.
#pragma once

#include <algorithm>
#include <cstring>
#include <optional>

#include "native_sockets.h"
#include "platform/socket.h"

namespace talvorn::platform {

[[nodiscard]] inline int ToNative(AddressFamily family) {
  return family == AddressFamily::kIpv6 ? AF_INET6 : AF_INET;
}
[[nodiscard]] inline int ToNative(SocketType type) {
  return type == SocketType::kStream ? SOCK_STREAM : SOCK_DGRAM;
}

[[nodiscard]] inline NativeSocket Native(std::intptr_t handle) {
  return static_cast<NativeSocket>(handle);
}
[[nodiscard]] inline const sockaddr* Native(const SocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.storage.data());
}
[[nodiscard]] inline NativeSize SizeOf(const SocketAddress& address) {
  return static_cast<NativeSize>(address.size);
}
[[nodiscard]] inline SocketAddress FromNative(const void* address, std::size_t size) {
  SocketAddress result;
  result.size = static_cast<std::uint32_t>(std::min(size, result.storage.size()));
  std::memcpy(result.storage.data(), address, result.size);
  return result;
}

// The address as the native type `T`; zeros where it is shorter.
template <typename T>
[[nodiscard]] T As(const SocketAddress& address) {
  T native{};
  std::memcpy(&native, address.storage.data(), std::min<std::size_t>(sizeof(T), address.size));
  return native;
}

template <typename T>
bool SetOption(std::intptr_t handle, int level, int option, const T& value) {
  return setsockopt(Native(handle), level, option, reinterpret_cast<const char*>(&value),
                    sizeof(value)) == 0;
}

// The options of multicast, which each family has at a level of its own.
struct MulticastOptions {
  int level;
  int loopback;
  int hops;
  int from;  // which interface
  int join;
  int leave;
};
[[nodiscard]] const MulticastOptions& OptionsOf(AddressFamily family);

// What a call that sends or receives returns, as a number of bytes.
[[nodiscard]] inline std::optional<std::size_t> Transferred(std::intptr_t result) {
  if (result < 0) return std::nullopt;
  return static_cast<std::size_t>(result);
}

// Where a datagram was sent to and on which interface it came in, as the control parts
// of its receive tell.
struct Arrival {
  bool known = false;
  std::uint32_t interfaceIndex = 0;
  in_addr ipv4{};
  in6_addr ipv6{};

  // Takes in one control part; `size` is that of its data.
  void Note(int level, int type, const void* data, std::size_t size);
  // Whether a member of `group` on that interface (0 for any) is to hear it. Of an
  // arrival that is known.
  [[nodiscard]] bool IsFor(const SocketAddress& group, std::uint32_t memberInterfaceIndex) const;
};

}  // namespace talvorn::platform
