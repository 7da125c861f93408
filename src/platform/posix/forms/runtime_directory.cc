#include "platform/posix/forms/runtime_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "platform/posix/io.h"
#include "platform/process.h"

namespace talvorn::platform {
namespace {

constexpr const char* kDefaultDirectory = "/run/talvorn";
constexpr mode_t kDirectoryMode = 0755;
// Everybody may make files in it, nobody may remove another's.
constexpr mode_t kFolderMode = 01777;

std::string ReasonOf(int error) { return std::generic_category().message(error); }

Descriptor OpenFolder(RuntimeFolder folder) {
  const int noLink = folder == RuntimeFolder::kLocator ? 0 : O_NOFOLLOW;
  return Descriptor(
      open(RuntimeFolderPath(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | noLink));
}

// Makes the folder with its very mode, whatever the umask, unless something of this name
// is there. What is there in the end is opened.
Descriptor OpenOrMakeFolder(RuntimeFolder folder) {
  const mode_t mode = folder == RuntimeFolder::kLocator ? kDirectoryMode : kFolderMode;
  const bool made = mkdir(RuntimeFolderPath(folder).c_str(), mode) == 0;
  const int makeError = errno;
  Descriptor opened = OpenFolder(folder);
  if (opened.valid() && made) {
    (void)fchmod(opened.get(), mode);
  } else if (!opened.valid() && errno == ENOENT) {
    errno = makeError;
  }
  return opened;
}

// Makes the folder ready. Why it cannot be used otherwise; empty when it can.
std::string FaultOf(RuntimeFolder folder) {
  const Descriptor opened = OpenOrMakeFolder(folder);
  struct stat status {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0) return ReasonOf(errno);
  if (status.st_uid != 0 && status.st_uid != geteuid()) return "It belongs to another account";
  if (folder != RuntimeFolder::kLocator) {
    (void)fchmod(opened.get(), kFolderMode);  // works if it is ours
  } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "Other accounts may write to it";
  }
  const bool writable = faccessat(opened.get(), ".", W_OK | X_OK, AT_EACCESS) == 0;
  return writable ? std::string() : ReasonOf(errno);
}

std::string Sentence(const std::string& path, const std::string& reason) {
  const bool root = geteuid() == 0;
  return "cannot use the runtime directory " + path + ": " + reason + ". " +
         (root ? "Remove what is in the way, or set TALVORN_RUNTIME_DIR to another directory."
               : "Run the locator as root, or set TALVORN_RUNTIME_DIR to a directory you can "
                 "write.");
}

}  // namespace

const char* RuntimeDirectory() { return Environment("TALVORN_RUNTIME_DIR", kDefaultDirectory); }

std::string RuntimeFolderPath(RuntimeFolder folder) {
  const std::string path = RuntimeDirectory();
  if (folder == RuntimeFolder::kLocator) return path;
  return path + (folder == RuntimeFolder::kMailslot ? "/mailslot" : "/objects");
}

Descriptor OpenRuntimeFolder(RuntimeFolder folder, bool create) {
  Descriptor opened = OpenFolder(folder);
  if (opened.valid() || !create || errno != ENOENT) return opened;
  if (folder != RuntimeFolder::kLocator) (void)OpenOrMakeFolder(RuntimeFolder::kLocator);
  return OpenOrMakeFolder(folder);
}

bool PrepareRuntimeDirectory(std::string& obstacle) {
  const std::string path = RuntimeDirectory();
  if (path.front() != '/') {
    obstacle = "cannot use the runtime directory " + path +
               ": Not an absolute path. Set TALVORN_RUNTIME_DIR to a path that begins with /.";
    return false;
  }
  for (const RuntimeFolder folder :
       {RuntimeFolder::kLocator, RuntimeFolder::kMailslot, RuntimeFolder::kObjects}) {
    if (const std::string reason = FaultOf(folder); !reason.empty()) {
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

std::string MeetingPlaceObstacle() {
  using enum RuntimeFolder;
  for (const RuntimeFolder folder : {kLocator, kMailslot, kObjects}) {
    const std::string path = RuntimeFolderPath(folder);
    const int wanted = folder == kLocator ? X_OK : X_OK | W_OK;
    if (access(path.c_str(), wanted) == 0 || errno == ENOENT) continue;
    return "this account may not use the directory " + path + " (" + ReasonOf(errno) + ")";
  }
  return {};
}

}  // namespace talvorn::platform
