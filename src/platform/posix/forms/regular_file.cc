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
    content.bytes.resize(size);
    const auto got = ReadBeginning(file.get(), content.bytes);
    struct stat after {};
    if (!got || fstat(file.get(), &after) != 0) return std::nullopt;
    if (StampOf(content.status) == StampOf(after) && *got == size) {
      const bool confirmed = attempt >= kPatience && previous &&
                             StampOf(previous->status) == StampOf(content.status) &&
                             previous->bytes == content.bytes;
      if (content.settled || confirmed) return content;
      previous = std::move(content);
    }
    SleepMs(kPauseMs);
  }
  return std::nullopt;
}

}  // namespace talvorn::platform
