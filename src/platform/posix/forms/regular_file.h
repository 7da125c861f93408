// Whole files that somebody may be writing while they are read.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

namespace talvorn::platform {

// Larger files are taken for unreadable.
inline constexpr std::size_t kLargestTextFile = 4 << 20;

// What changes when a file is written to or replaced.
struct FileStamp {
  explicit FileStamp(const struct stat& status)
      : device(status.st_dev),
        inode(status.st_ino),
        size(status.st_size),
        written(status.st_mtim.tv_sec, status.st_mtim.tv_nsec),
        changed(status.st_ctim.tv_sec, status.st_ctim.tv_nsec) {}

  bool operator==(const FileStamp&) const = default;

  dev_t device;
  ino_t inode;
  off_t size;
  std::pair<time_t, long> written;
  std::pair<time_t, long> changed;
};

struct FileContent {
  std::string bytes;
  struct stat status {};
  bool settled = false;  // any later change shows in the stamp
};

// None when `path` is no readable regular file, is larger than kLargestTextFile, or
// is being rewritten all the time. Never blocks on what is not a file; waits some
// milliseconds for a file that was written to just now.
[[nodiscard]] std::optional<FileContent> ReadTextFile(const std::string& path);

}  // namespace talvorn::platform
