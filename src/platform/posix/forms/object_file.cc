#include "platform/posix/forms/object_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <utility>

#include "platform/clock.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/io.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kMark = 0x4F564C54;  // "TLVO"
constexpr mode_t kMode = 0666;
constexpr off_t kExistenceByte = 0;

// Attempts to hold an object while others make and remove its file.
constexpr int kAttempts = 200;

// A lock that keeps others out is held for a moment by those who make an object or leave
// it. Whoever keeps one longer is waited for once, and for a while after that hardly.
constexpr std::uint32_t kPatienceMs = 50;
constexpr std::uint32_t kLittlePatienceMs = 2;
constexpr std::uint64_t kImpatientForMs = 60'000;

static_assert(sizeof(ObjectRecord) == 32 && offsetof(ObjectRecord, state) == 8 &&
              offsetof(ObjectRecord, signal) == 16 && offsetof(ObjectRecord, consumed) == 24);

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

// The name without its scope; what is no letter, digit, '_', '-' or inner '.' as %XX
// of its UTF-8 bytes.
std::string FileNameOf(std::u16string_view name) {
  for (const std::u16string_view scope : {u"Global\\", u"Local\\"}) {
    if (EqualWithoutCase(name.substr(0, scope.size()), scope)) {
      name.remove_prefix(scope.size());
      break;
    }
  }
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string file;
  for (const char c : WideToUtf8(name)) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsPlain(c) && (c != '.' || !file.empty())) {
      file += c;
    } else {
      file += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
    }
  }
  return file;
}

// A file with a second link may be anything that is precious elsewhere.
bool IsPlainFile(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

// The beginning of the record, up to a field.
bool WriteRecord(const Descriptor& file, const ObjectRecord& record, std::size_t size) {
  return pwrite(file.get(), &record, size, 0) == static_cast<ssize_t>(size);
}

}  // namespace

ObjectFile::ObjectFile(std::u16string_view name) : name_(FileNameOf(name)) {}

ObjectFile::~ObjectFile() {
  if (!held()) return;
  // Everybody who leaves lets go before he looks whether he was the last.
  (void)LockByte(file_.get(), F_UNLCK, kExistenceByte);
  if (LockByte(file_.get(), F_WRLCK, kExistenceByte) && IsNamed(file_)) (void)Remove();
}

void ObjectFile::Open() {
  // Most events that are looked for do not exist, which one call tells.
  const std::string path = RuntimeFolderPath(RuntimeFolder::kObjects) + '/' + name_;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return;
  directory_ = OpenRuntimeFolder(RuntimeFolder::kObjects, false);
  if (directory_.valid()) (void)Hold(std::nullopt);
}

void ObjectFile::Create(ObjectKind kind) {
  static std::atomic<std::uint64_t> impatientUntil{0};
  directory_ = OpenRuntimeFolder(RuntimeFolder::kObjects, true);
  if (!directory_.valid()) return;
  const std::uint32_t patience = MonotonicMs() < impatientUntil ? kLittlePatienceMs : kPatienceMs;
  if (!Within(patience, [&] { return Hold(kind) != Attempt::kLocked; })) {
    impatientUntil = MonotonicMs() + kImpatientForMs;
  } else if (held()) {
    impatientUntil = 0;
  }
}

ObjectFile::Attempt ObjectFile::Hold(std::optional<ObjectKind> kind) {
  Attempt result = Attempt::kMoved;
  for (int i = 0; result == Attempt::kMoved && i < kAttempts; ++i) result = TryHold(kind);
  return result;
}

ObjectFile::Attempt ObjectFile::TryHold(std::optional<ObjectKind> kind) {
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  claimed_ = false;
  Descriptor file(openat(directory_.get(), name_.c_str(), kFlags));
  const bool make = !file.valid() && errno == ENOENT && kind;
  if (make) {
    file = Descriptor(openat(directory_.get(), name_.c_str(), kFlags | O_CREAT | O_EXCL, kMode));
    if (!file.valid() && errno == EEXIST) return Attempt::kMoved;
    (void)fchmod(file.get(), kMode);
  }
  if (!file.valid() || !IsPlainFile(file.get())) return Attempt::kFinal;

  const bool unheld = LockByte(file.get(), F_WRLCK, kExistenceByte);
  claimed_ = !unheld;
  if (!unheld && !LockByte(file.get(), F_RDLCK, kExistenceByte)) return Attempt::kLocked;
  if (!IsNamed(file)) return Attempt::kMoved;
  ObjectRecord record;
  if (unheld) {
    // A killed process left the file. It makes room for a new one of ours, unless the
    // folder does not let us remove it.
    if (!make && Remove()) return Attempt::kMoved;
    if (!kind) return Attempt::kFinal;
    record = {.mark = kMark, .kind = *kind, .signal = RandomNumber()};
    if (ftruncate(file.get(), sizeof(record)) != 0 || !WriteRecord(file, record, sizeof(record)) ||
        // Nobody else has found the object before it is complete.
        !LockByte(file.get(), F_RDLCK, kExistenceByte)) {
      if (make) (void)Remove();
      return Attempt::kFinal;
    }
  } else if (pread(file.get(), &record, sizeof(record), 0) < 0 || record.mark != kMark) {
    return Attempt::kFinal;
  }
  kind_ = record.kind;
  file_ = std::move(file);
  return Attempt::kFinal;
}

bool ObjectFile::IsInPlace() const {
  const Descriptor folder = OpenRuntimeFolder(RuntimeFolder::kObjects, false);
  return held() && folder.valid() && IsStillAt(folder.get(), name_, file_.get());
}

bool ObjectFile::IsNamed(const Descriptor& file) const {
  return IsStillAt(directory_.get(), name_, file.get());
}

bool ObjectFile::Remove() const { return unlinkat(directory_.get(), name_.c_str(), 0) == 0; }

ObjectRecord ObjectFile::Read() const {
  ObjectRecord record;
  const ssize_t got = pread(file_.get(), &record, sizeof(record), 0);
  (void)got;
  return record;
}

// Both write the beginning of the record anew, which mends a damaged one.
bool ObjectFile::WriteSignal(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state, .signal = RandomNumber()};
  return WriteRecord(file_, record, offsetof(ObjectRecord, consumed));
}

bool ObjectFile::WriteState(std::uint32_t state) const {
  const ObjectRecord record{.mark = kMark, .kind = kind_, .state = state};
  return WriteRecord(file_, record, offsetof(ObjectRecord, signal));
}

}  // namespace talvorn::platform
