#include "platform/settings_store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/regular_file.h"
#include "platform/posix/forms/settings_file.h"
#include "platform/posix/io.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr const char* kDefaultFile = "/etc/talvorn/talvorn.reg";

constexpr std::uint32_t kLockLimitMs = 1'000;

// How often a change is made anew because somebody else changed the file meanwhile.
constexpr int kChangeAttempts = 5;

// The file itself when the configured path is a link, since a replaced link would
// leave the file it led to behind.
std::string StorePath() {
  const char* const path = Environment("TALVORN_REGISTRY", kDefaultFile);
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), free);
  return resolved != nullptr ? resolved.get() : path;
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == path.npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
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
  const auto taken = [&lock] { return flock(lock.get(), LOCK_EX | LOCK_NB) == 0; };
  return lock.valid() && Within(kLockLimitMs, taken) ? std::move(lock) : Descriptor();
}

// `like`: the file to replace; none for a new one.
bool ReplaceFile(const std::string& path, std::string_view bytes, const struct stat* like) {
  constexpr mode_t kModeOfNewFile = 0644;
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) return false;
  const auto isUnchanged = [&] {
    struct stat now {};
    return stat(path.c_str(), &now) == 0 && StampOf(now) == StampOf(*like);
  };
  const mode_t mode = like != nullptr ? like->st_mode & ALLPERMS : kModeOfNewFile;
  const bool done = (like == nullptr || fchown(file.get(), like->st_uid, like->st_gid) == 0) &&
                    fchmod(file.get(), mode) == 0 && WriteAll(file.get(), bytes) &&
                    fsync(file.get()) == 0 && (like == nullptr || isUnchanged()) &&
                    rename(temporary.c_str(), path.c_str()) == 0;
  if (!done) unlink(temporary.c_str());
  return done;
}

// The bytes of a changed file; none when it cannot be changed so.
using Change = std::function<std::optional<std::string>(const SettingsFile&)>;

bool ChangeFile(const Change& change) {
  const std::string path = StorePath();
  const Descriptor lock = LockBeside(path);
  if (!lock.valid()) return false;
  for (int attempt = 0; attempt < kChangeAttempts; ++attempt) {
    const auto content = ReadTextFile(path);
    if (!content && MayUse(path, F_OK)) return false;
    const std::string before = content ? content->bytes : std::string();
    const auto after = change(SettingsFile(before));
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

std::optional<std::uint32_t> NumberIn(const Setting* value) {
  if (value == nullptr || value->type != SettingType::kNumber || value->data.size() != 4)
    return std::nullopt;
  std::uint32_t number = 0;
  for (std::size_t i = 4; i-- > 0;)
    number = number << 8 | static_cast<unsigned char>(value->data[i]);
  return number;
}

// The store as it was read last, for as long as the file stays the same.
struct Store {
  std::string path;
  struct stat status;
  SettingsFile file;
};

// Null when there is none to read.
std::shared_ptr<const Store> ReadStore() {
  static std::mutex mutex;
  // Never destroyed: threads may read until the process has gone.
  static auto& kept = *new std::shared_ptr<const Store>;
  const std::string path = StorePath();
  struct stat now {};
  {
    const std::lock_guard lock(mutex);
    if (kept && kept->path == path && stat(path.c_str(), &now) == 0 &&
        StampOf(now) == StampOf(kept->status)) {
      return kept;
    }
  }
  auto content = ReadTextFile(path);
  if (!content) return nullptr;
  auto read = std::make_shared<const Store>(
      Store{path, content->status, SettingsFile(std::move(content->bytes))});
  const std::lock_guard lock(mutex);
  kept = content->settled ? read : nullptr;
  return read;
}

}  // namespace

struct SettingsKey::State {
  std::string path;
  bool writable;
  std::shared_ptr<const Store> store;

  // Null when there is no such text.
  [[nodiscard]] const Setting* FindText(std::u16string_view name) const {
    const Setting* const value = store->file.Find(path, WideToUtf8(name));
    return value != nullptr && value->type == SettingType::kString ? value : nullptr;
  }
};

SettingsKey SettingsKey::Open(std::u16string_view path, SettingsAccess access) {
  if (FaultHits(Fault::kSettingsOpen)) return {};
  const std::string key = WideToUtf8(path);
  auto store = ReadStore();
  const bool write = access == SettingsAccess::kReadWrite;
  if (!store || !store->file.HasKey(key) || (write && !MayReplace(store->path, store->status)))
    return {};
  return SettingsKey(std::make_shared<State>(State{key, write, std::move(store)}));
}

SettingsKey SettingsKey::Create(std::u16string_view path) {
  if (!IsPlainName(path)) return {};
  const std::string key = WideToUtf8(path);
  const auto store = ReadStore();
  if (!store || !store->file.HasKey(key)) {
    mkdir(DirectoryOf(StorePath()).c_str(), 0755);
    if (!ChangeFile([&key](const SettingsFile& file) { return file.WithKey(key); })) return {};
  }
  return Open(path, SettingsAccess::kReadWrite);
}

std::optional<std::uint32_t> SettingsKey::Number(std::u16string_view name) const {
  return valid() ? NumberIn(state_->store->file.Find(state_->path, WideToUtf8(name)))
                 : std::nullopt;
}

std::optional<std::u16string> SettingsKey::Text(std::u16string_view name) const {
  const Setting* const value = valid() ? state_->FindText(name) : nullptr;
  if (value == nullptr || value->data.size() > kSettingsTextCapacity * sizeof(char16_t))
    return std::nullopt;
  std::u16string text = DecodeUtf16(value->data, ByteOrder::kLittleEndian);
  text.resize(std::min(text.find(u'\0'), text.size()));
  return text.size() < kSettingsTextCapacity ? std::optional(std::move(text)) : std::nullopt;
}

std::optional<std::string> SettingsKey::NarrowText(std::u16string_view name) const {
  const Setting* const value = valid() ? state_->FindText(name) : nullptr;
  if (value == nullptr) return std::nullopt;
  std::string text = WideToUtf8(DecodeUtf16(value->data, ByteOrder::kLittleEndian));
  if (text.size() > kSettingsTextCapacity) return std::nullopt;
  text.resize(std::min({text.find('\0'), text.size(), kSettingsTextCapacity - 1}));
  return text;
}

std::vector<std::u16string> SettingsKey::Names() const {
  std::vector<std::u16string> names;
  if (!valid()) return names;
  for (const Setting* const value : state_->store->file.ValuesOf(state_->path))
    if (!value->name.empty()) names.push_back(Utf8ToWide(value->name));
  return names;
}

std::vector<std::u16string> SettingsKey::PendingNumbers() const {
  constexpr std::size_t kLongestName = 99;
  std::vector<std::u16string> pending;
  if (!valid()) return pending;
  for (const Setting* const value : state_->store->file.ValuesOf(state_->path)) {
    if (NumberIn(value) != 0u) continue;
    std::u16string name = Utf8ToWide(value->name);
    if (name.size() <= kLongestName) pending.push_back(std::move(name));
  }
  return pending;
}

bool SettingsKey::SetNumbers(std::span<const std::u16string> names, std::uint32_t value) {
  if (!valid() || !state_->writable) return false;
  std::vector<std::string> plain;
  for (const std::u16string& name : names) {
    if (IsPlainName(name)) plain.push_back(WideToUtf8(name));
  }
  return ChangeFile([&](const SettingsFile& file) {
           return file.WithNumbers(state_->path, plain, value);
         }) &&
         plain.size() == names.size();
}

std::string SettingsPlace() { return StorePath(); }

std::vector<std::string> SettingsObstacles() {
  const std::string path = StorePath();
  const auto store = ReadStore();
  if (!store) {
    const bool missing = !MayUse(path, F_OK) && errno == ENOENT;
    return missing
               ? std::vector<std::string>{}
               : std::vector{path + " cannot be read, or is larger than a settings file can be"};
  }
  std::vector<std::string> obstacles;
  for (const std::size_t line : store->file.strangeLines()) {
    obstacles.push_back(std::string("line ")
                            .append(std::to_string(line))
                            .append(" of ")
                            .append(path)
                            .append(" means nothing and is passed over"));
  }
  return obstacles;
}

}  // namespace talvorn::platform
