#include "platform/posix/unix_address.h"

#include <string>

namespace talvorn::platform {

UnixAddress::UnixAddress(std::string_view path) {
  address_.sun_family = AF_UNIX;
  path.copy(address_.sun_path, sizeof(address_.sun_path) - 1);
}

UnixAddress UnixAddress::OfDescriptor(int fd) {
  return UnixAddress("/proc/self/fd/" + std::to_string(fd));
}

}  // namespace talvorn::platform
