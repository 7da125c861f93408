#include "platform/posix/forms/regular_file.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr int kAttempts = 25;
constexpr std::uint32_t kPauseMs = 2;

// Longer than the steps of a file's time stamps: a file left alone for this long
// shows every later write in its stamp, and whoever truncated it has filled it.
constexpr std::int64_t kSettledNs = 20'000'000;
// A file that is replaced all the time never gets that old. From this attempt on it is
// enough to read the same twice.
constexpr int kPatience = 10;

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

bool Settled(const struct stat& status) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t age =
      Nanoseconds(now) - std::max(Nanoseconds(status.st_mtim), Nanoseconds(status.st_ctim));
  return age < 0 || age >= kSettledNs;
}

// False on an error. Reads no more than `size` bytes.
bool ReadBytes(int fd, std::size_t size, std::string& bytes) {
  bytes.resize(size);
  std::size_t done = 0;
  ssize_t got = 0;
  do {
    got = Retried([&] { return read(fd, bytes.data() + done, size - done); });
    if (got > 0) done += static_cast<std::size_t>(got);
  } while (got > 0 && done < size);
  bytes.resize(done);
  return got >= 0;
}

}  // namespace

std::optional<FileContent> ReadTextFile(const std::string& path) {
  std::optional<FileContent> previous;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    FileContent content;
    if (!file.valid() || fstat(file.get(), &content.status) != 0 ||
        !S_ISREG(content.status.st_mode) ||
        content.status.st_size > static_cast<off_t>(kLargestTextFile)) {
      return std::nullopt;
    }
    content.settled = Settled(content.status);
    const auto size = static_cast<std::size_t>(content.status.st_size);
    struct stat after {};
    if (!ReadBytes(file.get(), size, content.bytes) || fstat(file.get(), &after) != 0) {
      return std::nullopt;
    }
    if (FileStamp(content.status) == FileStamp(after) && content.bytes.size() == size) {
      const bool confirmed = attempt >= kPatience && previous &&
                             FileStamp(previous->status) == FileStamp(content.status) &&
                             previous->bytes == content.bytes;
      if (content.settled || confirmed) return content;
      previous = std::move(content);
    }
    SleepMs(kPauseMs);
  }
  return std::nullopt;
}

}  // namespace talvorn::platform
