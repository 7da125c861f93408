#include "platform/posix/forms/runtime_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

namespace talvorn::platform {
namespace {

constexpr const char* kDefaultDirectory = "/run/talvorn";
constexpr mode_t kDirectoryMode = 0755;
// Everybody may make files in it, nobody may remove another's.
constexpr mode_t kFolderMode = 01777;

const char* FolderName(RuntimeFolder folder) {
  return folder == RuntimeFolder::kMailslot ? "mailslot" : "objects";
}

// Makes the directory with this very mode, whatever the umask, unless something of
// this name is there. What is there in the end is opened.
Descriptor OpenOrMake(int parent, const char* path, mode_t mode, int flags) {
  const bool made = mkdirat(parent, path, mode) == 0;
  const int makeError = errno;
  Descriptor directory(openat(parent, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
  if (directory.valid() && made) {
    (void)fchmod(directory.get(), mode);
  } else if (!directory.valid() && errno == ENOENT) {
    errno = makeError;
  }
  return directory;
}

std::string ReasonOf(int error) { return std::generic_category().message(error); }

std::string WritingFaultOf(const Descriptor& directory) {
  if (faccessat(directory.get(), ".", W_OK | X_OK, AT_EACCESS) == 0) return {};
  return ReasonOf(errno);
}

// Why the directory cannot be trusted; empty when it can.
std::string DistrustOf(const Descriptor& directory) {
  struct stat status {};
  if (!directory.valid() || fstat(directory.get(), &status) != 0) return ReasonOf(errno);
  if (status.st_uid == 0 || status.st_uid == geteuid()) return {};
  return "It belongs to another account";
}

// Why the runtime directory itself cannot be used; empty when it can.
std::string DirectoryFaultOf(const Descriptor& directory) {
  if (std::string reason = DistrustOf(directory); !reason.empty()) return reason;
  struct stat status {};
  if (fstat(directory.get(), &status) != 0) return ReasonOf(errno);
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "Other accounts may write to it";
  return WritingFaultOf(directory);
}

// Why the folder cannot be used; empty when it can.
std::string FaultOf(const Descriptor& folder) {
  if (std::string reason = DistrustOf(folder); !reason.empty()) return reason;
  (void)fchmod(folder.get(), kFolderMode);  // works if it is ours
  return WritingFaultOf(folder);
}

std::string Sentence(const std::string& path, const std::string& reason) {
  const bool root = geteuid() == 0;
  return "cannot use the runtime directory " + path + ": " + reason + ". " +
         (root ? "Remove what is in the way, or set TALVORN_RUNTIME_DIR to another directory."
               : "Run the locator as root, or set TALVORN_RUNTIME_DIR to a directory you can "
                 "write.");
}

}  // namespace

const char* RuntimeDirectory() {
  const char* const configured = getenv("TALVORN_RUNTIME_DIR");
  return configured != nullptr && configured[0] != '\0' ? configured : kDefaultDirectory;
}

std::string RuntimeFolderPath(RuntimeFolder folder) {
  std::string path = RuntimeDirectory();
  return folder == RuntimeFolder::kLocator ? path : (path += '/') += FolderName(folder);
}

Descriptor OpenRuntimeFolder(RuntimeFolder folder, bool create) {
  const std::string path = RuntimeFolderPath(folder);
  const int noLink = folder == RuntimeFolder::kLocator ? 0 : O_NOFOLLOW;
  Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | noLink));
  if (directory.valid() || !create || errno != ENOENT) return directory;
  Descriptor runtime = OpenOrMake(AT_FDCWD, RuntimeDirectory(), kDirectoryMode, 0);
  if (folder == RuntimeFolder::kLocator) return runtime;
  return OpenOrMake(AT_FDCWD, path.c_str(), kFolderMode, O_NOFOLLOW);
}

bool PrepareRuntimeDirectory(std::string& obstacle) {
  const std::string path = RuntimeDirectory();
  if (path.front() != '/') {
    obstacle = "cannot use the runtime directory " + path +
               ": Not an absolute path. Set TALVORN_RUNTIME_DIR to a path that begins with /.";
    return false;
  }
  const Descriptor directory = OpenOrMake(AT_FDCWD, path.c_str(), kDirectoryMode, 0);
  if (const std::string reason = DirectoryFaultOf(directory); !reason.empty()) {
    obstacle = Sentence(path, reason);
    return false;
  }
  for (const RuntimeFolder folder : {RuntimeFolder::kMailslot, RuntimeFolder::kObjects}) {
    const Descriptor opened =
        OpenOrMake(directory.get(), FolderName(folder), kFolderMode, O_NOFOLLOW);
    if (const std::string reason = FaultOf(opened); !reason.empty()) {
      obstacle = Sentence(RuntimeFolderPath(folder), reason);
      return false;
    }
  }
  return true;
}

bool IsStillAt(int directory, const std::string& name, int fd) {
  struct stat file {};
  struct stat entry {};
  return fstat(fd, &file) == 0 &&
         fstatat(directory, name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
         file.st_dev == entry.st_dev && file.st_ino == entry.st_ino;
}

}  // namespace talvorn::platform
