#include "platform/posix/io.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/random.h>
#include <unistd.h>

#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

struct flock OneByte(short type, off_t byte) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

}  // namespace

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = Retried([&] { return write(fd, bytes.data(), bytes.size()); });
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || errno != EAGAIN ||
               // Whoever handed us a stream made it non-blocking.
               WaitForDescriptor(fd, POLLOUT, std::nullopt) == WaitStatus::kFailed) {
      return false;
    }
  }
  return true;
}

std::optional<std::size_t> ReadBeginning(int fd, std::span<char> buffer) {
  std::size_t done = 0;
  for (ssize_t got = 1; got > 0 && done < buffer.size(); done += static_cast<std::size_t>(got)) {
    const std::span<char> room = buffer.subspan(done);
    got = Retried([&] { return pread(fd, room.data(), room.size(), static_cast<off_t>(done)); });
    if (got < 0) return std::nullopt;
  }
  return done;
}

const char* Environment(const char* name, const char* fallback) {
  const char* const value = getenv(name);
  return value != nullptr && value[0] != '\0' ? value : fallback;
}

std::uint64_t RandomNumber() {
  std::uint64_t number = 0;
  // Early at boot the kernel has no random numbers yet.
  return getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)
             ? number
             : MonotonicMs() << 22 ^ static_cast<std::uint64_t>(gettid());
}

bool LockByte(int fd, short type, off_t byte) {
  struct flock lock = OneByte(type, byte);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool ByteIsLocked(int fd, off_t byte) {
  struct flock lock = OneByte(F_WRLCK, byte);
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace talvorn::platform
