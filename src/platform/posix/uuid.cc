#include "platform/uuid.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// The kernel makes a new one for every reader.
std::string NewUuidText() {
  const Descriptor source(open("/proc/sys/kernel/random/uuid", O_RDONLY | O_CLOEXEC));
  std::string text(36, '\0');
  if (read(source.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
  return text;
}

}  // namespace talvorn::platform
