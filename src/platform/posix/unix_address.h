// Addresses of Unix sockets.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

namespace talvorn::platform {

class UnixAddress {
 public:
  // `path` must be shorter than the address has room for; see Fits().
  explicit UnixAddress(std::string_view path);
  // The socket file that `fd`, opened with O_PATH, stands for: however long its
  // path is, and whatever the path leads to by now. `fd` must stay open.
  [[nodiscard]] static UnixAddress OfDescriptor(int fd);

  [[nodiscard]] static bool Fits(std::string_view path) {
    return path.size() < sizeof(sockaddr_un::sun_path);
  }

  [[nodiscard]] const char* path() const { return address_.sun_path; }
  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  [[nodiscard]] socklen_t size() const { return sizeof(address_); }

 private:
  sockaddr_un address_{};
};

}  // namespace talvorn::platform
