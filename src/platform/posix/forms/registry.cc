#include "platform/registry.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/registry_file.h"
#include "platform/posix/forms/regular_file.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr const char* kDefaultFile = "/etc/talvorn/talvorn.reg";

constexpr std::uint32_t kRegistryExpandString = 2;
constexpr std::uint32_t kRegistryMultiString = 7;

constexpr int kLockAttempts = 100;
constexpr std::uint32_t kLockPauseMs = 10;

// How often a change is made anew because somebody else changed the file meanwhile.
constexpr int kChangeAttempts = 5;

// The file itself when the configured path is a link, since a replaced link would
// leave the file it led to behind.
std::string RegistryPath() {
  const char* const configured = getenv("TALVORN_REGISTRY");
  const char* const path =
      configured != nullptr && configured[0] != '\0' ? configured : kDefaultFile;
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), free);
  return resolved != nullptr ? resolved.get() : path;
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool MayUse(const std::string& path, int access) {
  return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
}

// The file is replaced by a copy, which only its owner can make the same.
bool MayReplace(const std::string& path, const struct stat& status) {
  return MayUse(path, W_OK) && MayUse(DirectoryOf(path), W_OK | X_OK) &&
         (geteuid() == 0 || geteuid() == status.st_uid);
}

// Keeps other writers of our kind away until it is destroyed; none when they do not
// leave in time.
Descriptor LockBeside(const std::string& path) {
  Descriptor lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock.valid()) return {};
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno != EWOULDBLOCK && errno != EINTR) break;
    SleepMs(kLockPauseMs);
  }
  return {};
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// `like`: the file to replace; none for a new one.
bool ReplaceFile(const std::string& path, std::string_view bytes, const struct stat* like) {
  constexpr mode_t kModeOfNewFile = 0644;
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) return false;

  struct stat own {};
  bool done = fstat(file.get(), &own) == 0;
  if (done && like != nullptr && (own.st_uid != like->st_uid || own.st_gid != like->st_gid)) {
    done = fchown(file.get(), like->st_uid, like->st_gid) == 0;
  }
  const mode_t mode = like != nullptr ? like->st_mode & ALLPERMS : kModeOfNewFile;
  done = done && fchmod(file.get(), mode) == 0 && WriteAll(file.get(), bytes) &&
         fsync(file.get()) == 0;
  struct stat now {};
  if (done && like != nullptr) {
    done = stat(path.c_str(), &now) == 0 && FileStamp(now) == FileStamp(*like);
  }
  done = done && rename(temporary.c_str(), path.c_str()) == 0;
  if (!done) unlink(temporary.c_str());
  return done;
}

// The bytes of a changed file; none when it cannot be changed so.
using Change = std::function<std::optional<std::string>(const RegistryFile&)>;

bool ChangeFile(const Change& change) {
  const std::string path = RegistryPath();
  const Descriptor lock = LockBeside(path);
  if (!lock.valid()) return false;
  for (int attempt = 0; attempt < kChangeAttempts; ++attempt) {
    const auto content = ReadTextFile(path);
    if (!content && MayUse(path, F_OK)) return false;
    const std::string before = content ? content->bytes : std::string();
    const auto after = change(RegistryFile(before));
    if (!after || after->size() > kLargestTextFile) return false;
    if (content && *after == before) return true;
    if (ReplaceFile(path, *after, content ? &content->status : nullptr)) return true;
  }
  return false;
}

bool IsPlainName(std::u16string_view name) {
  return std::all_of(name.begin(), name.end(),
                     [](char16_t unit) { return unit >= u' ' && unit != 0x7F; });
}

template <typename T>
RegistryResult CopyOut(std::uint32_t type, std::span<const T> data, std::span<T> buffer) {
  RegistryResult result{RegistryStatus::kOk, type, static_cast<std::uint32_t>(data.size())};
  if (data.size() > buffer.size()) {
    result.status = RegistryStatus::kMoreData;
  } else {
    std::copy(data.begin(), data.end(), buffer.begin());
  }
  return result;
}

}  // namespace

struct RegistryKey::State {
  std::u16string path;
  bool writable;
  std::vector<RegistryValue> values;

  [[nodiscard]] const RegistryValue* Find(std::u16string_view name) const {
    const auto found = std::find_if(values.begin(), values.end(), [name](const auto& value) {
      return EqualWithoutCase(value.name, name);
    });
    return found == values.end() ? nullptr : &*found;
  }
};

RegistryKey::RegistryKey() = default;
RegistryKey::~RegistryKey() = default;
RegistryKey::RegistryKey(RegistryKey&& other) noexcept = default;
RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept = default;

RegistryKey RegistryKey::Open(std::u16string_view path, RegistryAccess access) {
  RegistryKey key;
  if (FaultHits(Fault::kRegistryOpen)) return key;
  const std::string file = RegistryPath();
  auto content = ReadTextFile(file);
  const bool write = access == RegistryAccess::kReadWrite;
  if (!content || (write && !MayReplace(file, content->status))) return key;
  const RegistryFile registry(std::move(content->bytes));
  if (!registry.HasKey(path)) return key;
  key.state_ = std::make_unique<State>(State{std::u16string(path), write, registry.ValuesOf(path)});
  return key;
}

RegistryKey RegistryKey::Create(std::u16string_view path) {
  if (!IsPlainName(path)) return {};
  const std::string file = RegistryPath();
  const auto content = ReadTextFile(file);
  if (!content || !RegistryFile(content->bytes).HasKey(path)) {
    mkdir(DirectoryOf(file).c_str(), 0755);
    if (!ChangeFile([path](const RegistryFile& registry) { return registry.WithKey(path); })) {
      return {};
    }
  }
  return Open(path, RegistryAccess::kReadWrite);
}

RegistryResult RegistryKey::Query(std::u16string_view name, std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  const RegistryValue* const value = state_->Find(name);
  if (value == nullptr) return {.status = RegistryStatus::kMissing};
  return CopyOut<std::byte>(value->type, value->data, data);
}

RegistryResult RegistryKey::QueryNarrow(std::u16string_view name, std::span<char> data) const {
  if (state_ == nullptr) return {};
  const RegistryValue* const value = state_->Find(name);
  if (value == nullptr) return {.status = RegistryStatus::kMissing};
  std::string narrow;
  if (value->type == kRegistryString || value->type == kRegistryExpandString ||
      value->type == kRegistryMultiString) {
    std::u16string wide(value->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(wide.data(), value->data.data(), wide.size() * sizeof(char16_t));
    narrow = WideToUtf8(wide);
  } else {
    narrow.assign(reinterpret_cast<const char*>(value->data.data()), value->data.size());
  }
  return CopyOut<char>(value->type, narrow, data);
}

RegistryResult RegistryKey::Enumerate(std::uint32_t index, std::span<char16_t> name,
                                      std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  if (index >= state_->values.size()) return {.status = RegistryStatus::kMissing};
  const RegistryValue& value = state_->values[index];
  RegistryResult result = CopyOut<std::byte>(value.type, value.data, data);
  if (value.name.size() >= name.size()) {
    result.status = RegistryStatus::kMoreData;
  } else {
    *std::copy(value.name.begin(), value.name.end(), name.begin()) = u'\0';
  }
  return result;
}

bool RegistryKey::SetDwords(std::span<const std::u16string> names, std::uint32_t value) {
  if (state_ == nullptr || !state_->writable) return false;
  std::vector<std::u16string> plain(names.begin(), names.end());
  const bool allPlain =
      std::erase_if(plain, [](const std::u16string& name) { return !IsPlainName(name); }) == 0;
  return ChangeFile([&](const RegistryFile& registry) {
           return registry.WithDwords(state_->path, plain, value);
         }) &&
         allPlain;
}

}  // namespace talvorn::platform
