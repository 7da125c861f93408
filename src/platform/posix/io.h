// Calls of the system as they are made everywhere: again after a signal, whole, and
// waited for with a bound.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/clock.h"
#include "platform/thread.h"

namespace talvorn::platform {

// What `call` returns, made again for as long as a signal interrupts it.
template <typename Call>
auto Retried(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// All of the bytes, however often that takes; false, with the reason in errno, when the
// rest cannot be written.
[[nodiscard]] bool WriteAll(int fd, std::string_view bytes);

// As many of the file's first bytes as there are and as there is room for; none on an error.
[[nodiscard]] std::optional<std::size_t> ReadBeginning(int fd, std::span<char> buffer);

// Tries until `attempt` is true; false when it has not been for `limitMs`.
template <typename Attempt>
[[nodiscard]] bool Within(std::uint32_t limitMs, Attempt attempt) {
  const std::uint64_t start = MonotonicMs();
  while (!attempt()) {
    if (MonotonicMs() - start >= limitMs) return false;
    SleepMs(1);
  }
  return true;
}

// The value of a variable; `fallback` when it is not set or empty. Valid until the
// environment changes.
[[nodiscard]] const char* Environment(const char* name, const char* fallback);

// Different, but for chance, from those of all other processes and threads.
[[nodiscard]] std::uint64_t RandomNumber();

// Sets the lock of this open file (not of the process) on one byte, or fails at once. `type`:
// F_RDLCK, F_WRLCK or F_UNLCK.
[[nodiscard]] bool LockByte(int fd, short type, off_t byte);

// Whether somebody else holds a lock on the byte.
[[nodiscard]] bool ByteIsLocked(int fd, off_t byte);

}  // namespace talvorn::platform
