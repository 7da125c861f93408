#include "platform/posix/forms/object_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "platform/clock.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/io.h"
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

// Most events that are looked for do not exist: one look at the path tells.
bool IsTaken(std::u16string_view name) {
  const std::string path = RuntimeFolderPath(RuntimeFolder::kObjects) + '/' + FileNameOf(name);
  return access(path.c_str(), F_OK) == 0;
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

bool Lock(const Descriptor& file, short type) { return LockByte(file.get(), type, kExistenceByte); }
bool IsHeld(const Descriptor& file) { return ByteIsLocked(file.get(), kExistenceByte); }

Descriptor OpenFile(int directory, const std::string& name) {
  return Descriptor(
      openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// A file with a second link may be anything that is precious elsewhere.
bool IsPlainFile(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

// Different from those of all processes and threads, so that any write of one is a
// change to see and nobody has to count under a lock.
std::uint64_t NewSignal() {
  std::uint64_t signal = 0;
  const ssize_t got = getrandom(&signal, sizeof(signal), 0);
  (void)got;  // so few bytes never fail
  return signal;
}

// What is missing in the file is zero in the record.
ObjectRecord ReadRecord(const Descriptor& file) {
  ObjectRecord record;
  const ssize_t got = pread(file.get(), &record, sizeof(record), 0);
  (void)got;
  return record;
}

// The beginning of the record, up to a field; anew from its mark, which mends a damaged
// one.
bool WriteRecord(const Descriptor& file, const ObjectRecord& record, std::size_t size) {
  return pwrite(file.get(), &record, size, 0) == static_cast<ssize_t>(size);
}

}  // namespace

ObjectFile::~ObjectFile() {
  if (!file_.valid()) return;
  // Everybody who leaves lets go before he looks whether he was the last.
  (void)Lock(file_, F_UNLCK);
  RemoveStale(file_);
}

ObjectFile::ObjectFile(std::u16string_view name, bool makeFolder) : name_(FileNameOf(name)) {
  if (!name_.empty()) directory_ = OpenRuntimeFolder(RuntimeFolder::kObjects, makeFolder);
}

ObjectFile ObjectFile::Open(std::u16string_view name) {
  if (!IsTaken(name)) return {};
  ObjectFile object(name, false);
  Hold hold = Hold::kMoved;
  Descriptor stale;
  for (int attempt = 0; hold == Hold::kMoved && attempt < kOpenAttempts; ++attempt) {
    hold = object.TryHold(stale);
  }
  if (hold == Hold::kStale) object.RemoveStale(stale);
  return object;
}

ObjectFile ObjectFile::Create(std::u16string_view name, ObjectKind kind) {
  ObjectFile object(name, true);
  if (object.name_.empty()) return object;
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
  if (!IsTaken(name)) return false;
  const ObjectFile object(name, false);
  const Descriptor file = OpenFile(object.directory_.get(), object.name_);
  return file.valid() && IsPlainFile(file.get()) && IsHeld(file);
}

ObjectFile::Hold ObjectFile::TryHold(Descriptor& stale) {
  Descriptor file = OpenFile(directory_.get(), name_);
  if (!file.valid()) return errno == ENOENT ? Hold::kAbsent : Hold::kBarred;
  if (!IsPlainFile(file.get())) return Hold::kBarred;
  if (!IsHeld(file)) {
    stale = std::move(file);
    return Hold::kStale;
  }
  if (!Lock(file, F_RDLCK)) return Hold::kLocked;
  if (!IsStillAt(directory_.get(), name_, file.get())) return Hold::kMoved;

  const ObjectRecord record = ReadRecord(file);
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
  if (!Lock(file, F_WRLCK) || !IsStillAt(directory_.get(), name_, file.get())) return false;
  // A killed process left the file. It makes room for a new one of ours, unless the
  // folder does not let us remove it.
  if (reuse && unlinkat(directory_.get(), name_.c_str(), 0) == 0) return false;

  const ObjectRecord record{.mark = kMark, .kind = kind, .signal = NewSignal()};
  if (ftruncate(file.get(), sizeof(record)) != 0 || !WriteRecord(file, record, sizeof(record))) {
    if (!reuse) (void)unlinkat(directory_.get(), name_.c_str(), 0);
    return true;
  }
  if (!Lock(file, F_RDLCK)) return true;
  kind_ = kind;
  file_ = std::move(file);
  return true;
}

void ObjectFile::RemoveStale(const Descriptor& stale) const {
  if (Lock(stale, F_WRLCK) && IsStillAt(directory_.get(), name_, stale.get())) {
    (void)unlinkat(directory_.get(), name_.c_str(), 0);
  }
}

ObjectRecord ObjectFile::Read() const { return ReadRecord(file_); }

bool ObjectFile::WriteSignal(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state, .signal = NewSignal()};
  return WriteRecord(file_, record, offsetof(ObjectRecord, consumed));
}

bool ObjectFile::WriteState(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state};
  return WriteRecord(file_, record, offsetof(ObjectRecord, signal));
}

}  // namespace talvorn::platform
