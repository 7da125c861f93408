// Whole files that somebody may be writing while they are read.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <tuple>

namespace talvorn::platform {

// Larger files are taken for unreadable.
inline constexpr std::size_t kLargestTextFile = 4 << 20;

// What changes when a file is written to or replaced.
[[nodiscard]] inline auto StampOf(const struct stat& file) {
  return std::tuple(file.st_dev, file.st_ino, file.st_size, file.st_mtim.tv_sec,
                    file.st_mtim.tv_nsec, file.st_ctim.tv_sec, file.st_ctim.tv_nsec);
}

struct FileContent {
  std::string bytes;
  struct stat status {};
  bool settled = false;  // any later change shows in the stamp
};

// None when `path` is no readable regular file, is too large, or is being rewritten all the time.
// Waits some milliseconds for a file that was written to just now.
[[nodiscard]] std::optional<FileContent> ReadTextFile(const std::string& path);

}  // namespace talvorn::platform
