#include "platform/posix/forms/object_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "platform/clock.h"
#include "platform/posix/forms/object_names.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kMark = 0x4F564C54;  // "TLVO"
constexpr mode_t kMode = 0666;
constexpr std::size_t kLongestFileName = 255;
constexpr off_t kExistenceByte = 0;

// Attempts to make an object while others make, remove or lock its file.
constexpr int kMakeAttempts = 200;
constexpr int kOpenAttempts = 8;

// A lock that keeps others out is held for a moment by those who make an object or leave
// it. Whoever keeps one longer is waited for once, and for a while after that hardly.
constexpr std::uint64_t kPatienceMs = 50;
constexpr std::uint64_t kLittlePatienceMs = 2;
constexpr std::uint64_t kImpatientForMs = 60'000;

static_assert(sizeof(ObjectRecord) == 32 && offsetof(ObjectRecord, state) == 8 &&
              offsetof(ObjectRecord, signal) == 16 && offsetof(ObjectRecord, consumed) == 24);

bool IsPlain(char16_t unit) {
  return (unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z') ||
         (unit >= u'0' && unit <= u'9') || unit == u'_' || unit == u'-' || unit == u'.';
}

// The name without its scope; what is no letter, digit, '_', '-' or inner '.' as %XX
// of its UTF-8 bytes. Empty when no file can have the name.
std::string FileNameOf(std::u16string_view name) {
  for (const std::u16string_view scope : {u"Global\\", u"Local\\"}) {
    if (EqualWithoutCase(name.substr(0, scope.size()), scope)) {
      name.remove_prefix(scope.size());
      break;
    }
  }
  std::string file;
  if (std::all_of(name.begin(), name.end(), IsPlain) && !name.starts_with(u'.')) {
    file.assign(name.begin(), name.end());
  } else {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    for (const char c : WideToUtf8(name)) {
      const auto byte = static_cast<unsigned char>(c);
      if (IsPlain(byte) && (c != '.' || !file.empty())) {
        file += c;
      } else {
        file += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
      }
    }
  }
  return file.size() <= kLongestFileName ? file : std::string();
}

// How long one attempt to make an object waits for locks.
class LockPatience {
 public:
  // False when it is exhausted.
  bool Wait() {
    const std::uint64_t now = MonotonicMs();
    if (until_ == 0) until_ = now + (now < impatientUntil_ ? kLittlePatienceMs : kPatienceMs);
    if (now >= until_) {
      impatientUntil_ = now + kImpatientForMs;
      return false;
    }
    SleepMs(1);
    return true;
  }
  // Somebody has let go.
  static void Regain() { impatientUntil_ = 0; }

 private:
  static inline std::atomic<std::uint64_t> impatientUntil_{0};
  std::uint64_t until_ = 0;
};

// The locks belong to the open file, not to the process, so that a process can hold
// an object several times.
bool SetLock(int fd, short type, off_t byte) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool IsHeld(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kExistenceByte;
  lock.l_len = 1;
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Descriptor OpenFile(int directory, const std::string& name) {
  return Descriptor(
      openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// A file with a second link may be anything that is precious elsewhere.
bool IsPlainFile(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

std::uint64_t Mix(std::uint64_t x) {
  x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
  x = (x ^ x >> 27) * 0x94D049BB133111EB;
  return x ^ x >> 31;
}

// Different from those of all processes and threads, so that any write of one is a
// change to see and nobody has to count under a lock.
std::uint64_t NewSignal() {
  static std::atomic<std::uint64_t> counter{0};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto time = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
                    static_cast<std::uint64_t>(now.tv_nsec);
  return Mix(Mix(time) + static_cast<std::uint64_t>(getpid())) + ++counter;
}

// What is missing in the file is zero in the record.
ObjectRecord ReadRecord(int fd) {
  ObjectRecord record;
  const ssize_t got = pread(fd, &record, sizeof(record), 0);
  (void)got;
  return record;
}

bool WriteAt(int fd, const void* bytes, std::size_t size, std::size_t offset) {
  return pwrite(fd, bytes, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

}  // namespace

ObjectFile::~ObjectFile() {
  if (!file_.valid()) return;
  // Everybody who leaves lets go before he looks whether he was the last.
  (void)SetLock(file_.get(), F_UNLCK, kExistenceByte);
  RemoveStale(file_);
}

ObjectFile ObjectFile::Open(std::u16string_view name) {
  ObjectFile object({}, FileNameOf(name));
  if (object.name_.empty()) return object;
  // Most events that are looked for do not exist.
  if (!MayBeObject(object.name_)) return object;

  object.directory_ = OpenRuntimeFolder(RuntimeFolder::kObjects, false);
  Hold hold = Hold::kMoved;
  Descriptor stale;
  for (int attempt = 0; hold == Hold::kMoved && attempt < kOpenAttempts; ++attempt) {
    hold = object.TryHold(stale);
  }
  if (hold == Hold::kStale) object.RemoveStale(stale);
  return object;
}

ObjectFile ObjectFile::Create(std::u16string_view name, ObjectKind kind) {
  ObjectFile object({}, FileNameOf(name));
  if (object.name_.empty()) return object;
  object.directory_ = OpenRuntimeFolder(RuntimeFolder::kObjects, true);
  LockPatience patience;
  for (int attempt = 0; attempt < kMakeAttempts; ++attempt) {
    Descriptor stale;
    switch (object.TryHold(stale)) {
      case Hold::kHeld:
        LockPatience::Regain();
        return object;
      case Hold::kBarred:
        return object;
      case Hold::kAbsent:
      case Hold::kStale:
        if (!object.TryMake(std::move(stale), kind)) break;
        LockPatience::Regain();
        return object;
      case Hold::kLocked:
        if (!patience.Wait()) return object;
        break;
      case Hold::kMoved:
        break;
    }
  }
  return object;
}

bool ObjectFile::IsClaimed(std::u16string_view name) {
  const std::string fileName = FileNameOf(name);
  if (fileName.empty() || !MayBeObject(fileName)) return false;
  const Descriptor directory = OpenRuntimeFolder(RuntimeFolder::kObjects, false);
  const Descriptor file = OpenFile(directory.get(), fileName);
  return file.valid() && IsPlainFile(file.get()) && IsHeld(file.get());
}

ObjectFile::Hold ObjectFile::TryHold(Descriptor& stale) {
  Descriptor file = OpenFile(directory_.get(), name_);
  if (!file.valid()) return errno == ENOENT ? Hold::kAbsent : Hold::kBarred;
  if (!IsPlainFile(file.get())) return Hold::kBarred;
  if (!IsHeld(file.get())) {
    stale = std::move(file);
    return Hold::kStale;
  }
  if (!SetLock(file.get(), F_RDLCK, kExistenceByte)) return Hold::kLocked;
  if (!IsStillAt(directory_.get(), name_, file.get())) return Hold::kMoved;

  const ObjectRecord record = ReadRecord(file.get());
  if (record.mark != kMark) return Hold::kBarred;
  kind_ = record.kind;
  file_ = std::move(file);
  return Hold::kHeld;
}

bool ObjectFile::TryMake(Descriptor stale, ObjectKind kind) {
  Descriptor file = std::move(stale);
  const bool reuse = file.valid();
  if (!reuse) {
    file =
        Descriptor(openat(directory_.get(), name_.c_str(),
                          O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
    if (!file.valid()) return errno != EEXIST;
    (void)fchmod(file.get(), kMode);
  }
  // Nobody else finds the object before it is complete.
  if (!SetLock(file.get(), F_WRLCK, kExistenceByte) ||
      !IsStillAt(directory_.get(), name_, file.get())) {
    return false;
  }
  // A killed process left the file. It makes room for a new one of ours, unless the
  // folder does not let us remove it.
  if (reuse && unlinkat(directory_.get(), name_.c_str(), 0) == 0) return false;

  const ObjectRecord record{.mark = kMark, .kind = kind, .signal = NewSignal()};
  if (ftruncate(file.get(), sizeof(record)) != 0 ||
      !WriteAt(file.get(), &record, sizeof(record), 0)) {
    if (!reuse) (void)unlinkat(directory_.get(), name_.c_str(), 0);
    return true;
  }
  if (!SetLock(file.get(), F_RDLCK, kExistenceByte)) return true;
  kind_ = kind;
  file_ = std::move(file);
  return true;
}

void ObjectFile::RemoveStale(const Descriptor& stale) const {
  if (SetLock(stale.get(), F_WRLCK, kExistenceByte) &&
      IsStillAt(directory_.get(), name_, stale.get())) {
    (void)unlinkat(directory_.get(), name_.c_str(), 0);
  }
}

ObjectRecord ObjectFile::Read() const { return ReadRecord(file_.get()); }

// Both write the beginning of the record anew, which mends a damaged one.
bool ObjectFile::WriteSignal(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state, .signal = NewSignal()};
  return WriteAt(file_.get(), &record, offsetof(ObjectRecord, consumed), 0);
}

bool ObjectFile::WriteState(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state};
  return WriteAt(file_.get(), &record, offsetof(ObjectRecord, signal), 0);
}

bool ObjectFile::WriteConsumed(std::uint64_t signal) const {
  return WriteState(0) &&
         WriteAt(file_.get(), &signal, sizeof(signal), offsetof(ObjectRecord, consumed));
}

}  // namespace talvorn::platform
