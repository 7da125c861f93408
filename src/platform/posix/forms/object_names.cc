#include "platform/posix/forms/object_names.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_set>

#include "platform/clock.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/runtime_directory.h"

namespace talvorn::platform {
namespace {

// How long the path to the folder is taken to lead to the same folder.
constexpr std::uint64_t kTrustMs = 100;
// Anybody may fill the folder; beyond this many names each one is looked up.
constexpr std::size_t kMostNames = 10'000;

class ObjectNames {
 public:
  // Parent and child of a fork would take each other's changes from the one queue, so
  // that the child begins anew.
  ObjectNames() {
    static ObjectNames* const self = this;
    pthread_atfork([] { self->mutex_.lock(); }, [] { self->mutex_.unlock(); },
                   [] {
                     self->complete_ = false;
                     self->trustedUntil_ = 0;
                     self->mutex_.unlock();
                   });
  }

  bool Contains(const std::string& name) {
    const std::lock_guard lock(mutex_);
    if (!Update()) return access((path_ + '/' + name).c_str(), F_OK) == 0;
    return names_.contains(name);
  }

 private:
  // Brings the names up to date. False when they cannot be known.
  bool Update() {
    const std::uint64_t now = MonotonicMs();
    if (now >= trustedUntil_ || directory_ != RuntimeDirectory()) {
      trustedUntil_ = now + kTrustMs;
      if (!IsSameFolder()) Read();
    }
    return complete_ && TakeChanges();
  }

  bool IsSameFolder() {
    struct stat status {};
    return complete_ && directory_ == RuntimeDirectory() && stat(path_.c_str(), &status) == 0 &&
           status.st_dev == device_ && status.st_ino == inode_;
  }

  // Reads all names anew. What changes meanwhile is told to the watch, which stands
  // before.
  void Read() {
    complete_ = false;
    names_.clear();
    directory_ = RuntimeDirectory();
    path_ = RuntimeFolderPath(RuntimeFolder::kObjects);
    changes_ = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!changes_.valid() ||
        inotify_add_watch(changes_.get(), path_.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF |
                              IN_MOVE_SELF | IN_ONLYDIR) < 0) {
      return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path_.c_str()), closedir);
    struct stat status {};
    if (!folder || fstat(dirfd(folder.get()), &status) != 0) return;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    while (const dirent* entry = readdir(folder.get())) {
      names_.insert(entry->d_name);
      if (names_.size() > kMostNames) return;
    }
    complete_ = true;
  }

  // False when the names have to be read anew, which the next look does.
  bool TakeChanges() {
    alignas(inotify_event) std::array<char, 4'096> buffer;
    for (;;) {
      const ssize_t size = read(changes_.get(), buffer.data(), buffer.size());
      if (size <= 0) return true;
      for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
        inotify_event event{};
        std::memcpy(&event, &buffer[at], sizeof(event));
        if (!Apply(event, event.len > 0 ? &buffer[at + sizeof(event)] : "")) {
          complete_ = false;
          trustedUntil_ = 0;
          return false;
        }
        at += sizeof(event) + event.len;
      }
    }
  }

  bool Apply(const inotify_event& event, const char* name) {
    if ((event.mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0)
      return false;
    if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
      names_.insert(name);
    } else {
      names_.erase(name);
    }
    return names_.size() <= kMostNames;
  }

  std::mutex mutex_;
  std::string directory_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  Descriptor changes_;
  std::unordered_set<std::string> names_;
  bool complete_ = false;
  std::uint64_t trustedUntil_ = 0;
};

}  // namespace

bool MayBeObject(const std::string& name) {
  // Never destroyed: threads may look until the process has gone.
  static ObjectNames& names = *new ObjectNames;
  try {
    return names.Contains(name);
  } catch (const std::bad_alloc&) {
    return true;  // the caller finds out
  }
}

}  // namespace talvorn::platform
