#include "platform/settings_store.h"

#include <algorithm>
#include <array>

#include "platform/fault_injection.h"
#include "platform/text_encoding.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The standard rights to read, and to read and write, a key.
constexpr REGSAM kRead = 0x20019;
constexpr REGSAM kReadWrite = 0x2001F;

// The text that `query` finds under a name; none when the value is no text or too large.
template <typename Char, typename Name, typename Query>
std::optional<std::basic_string<Char>> QueryText(HKEY key, const Name* name, Query query) {
  std::array<Char, kSettingsTextCapacity> buffer{};
  DWORD type = 0;
  DWORD size = sizeof(buffer);
  const LSTATUS status =
      query(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &size);
  if (status != ERROR_SUCCESS || type != REG_SZ) return std::nullopt;
  const auto stored = std::span(buffer).first(size / sizeof(Char));
  return std::basic_string<Char>(stored.begin(), std::ranges::find(stored, Char{}));
}

}  // namespace

struct SettingsKey::State {
  Handle<HKEY, RegCloseKey> key;

  // The key that `call` opens; null on failure.
  template <typename Call>
  static std::shared_ptr<State> On(std::u16string_view path, Call call) {
    auto state = std::make_shared<State>();
    const std::u16string terminated(path);
    return call(ToNative(terminated), state->key.Receive()) == ERROR_SUCCESS ? state : nullptr;
  }
};

SettingsKey SettingsKey::Open(std::u16string_view path, SettingsAccess access) {
  if (FaultHits(Fault::kSettingsOpen)) return {};
  const REGSAM rights = access == SettingsAccess::kReadWrite ? kReadWrite : kRead;
  return SettingsKey(State::On(path, [rights](const wchar_t* native, HKEY* opened) {
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, native, 0, rights, opened);
  }));
}

SettingsKey SettingsKey::Create(std::u16string_view path) {
  return SettingsKey(State::On(path, [](const wchar_t* native, HKEY* opened) {
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, native, 0, nullptr, REG_OPTION_NON_VOLATILE,
                           kReadWrite, nullptr, opened, nullptr);
  }));
}

std::optional<std::uint32_t> SettingsKey::Number(std::u16string_view name) const {
  if (!valid()) return std::nullopt;
  DWORD type = 0;
  DWORD number = 0;
  DWORD size = sizeof(number);
  const bool there =
      RegQueryValueExW(state_->key.get(), ToNative(std::u16string(name)), nullptr, &type,
                       reinterpret_cast<BYTE*>(&number), &size) == ERROR_SUCCESS;
  return there && type == REG_DWORD && size == sizeof(number) ? std::optional(number)
                                                              : std::nullopt;
}

std::optional<std::u16string> SettingsKey::Text(std::u16string_view name) const {
  if (!valid()) return std::nullopt;
  auto text =
      QueryText<char16_t>(state_->key.get(), ToNative(std::u16string(name)), RegQueryValueExW);
  return text && text->size() < kSettingsTextCapacity ? std::move(text) : std::nullopt;
}

std::optional<std::string> SettingsKey::NarrowText(std::u16string_view name) const {
  if (!valid()) return std::nullopt;
  auto text = QueryText<char>(state_->key.get(), WideToNarrow(name).c_str(), RegQueryValueExA);
  if (text) text->resize(std::min(text->size(), kSettingsTextCapacity - 1));
  return text;
}

std::vector<std::u16string> SettingsKey::Names() const {
  constexpr std::size_t kLongestName = 16'383;
  std::vector<std::u16string> names;
  if (!valid()) return names;
  std::vector<wchar_t> name(kLongestName + 1);
  for (DWORD index = 0;; ++index) {
    auto nameSize = static_cast<DWORD>(name.size());
    if (RegEnumValueW(state_->key.get(), index, name.data(), &nameSize, nullptr, nullptr, nullptr,
                      nullptr) != ERROR_SUCCESS)
      return names;
    if (nameSize > 0) names.push_back(FromNative(name.data(), nameSize));
  }
}

std::vector<std::u16string> SettingsKey::PendingNumbers() const {
  std::vector<std::u16string> pending;
  if (!valid()) return pending;
  for (DWORD index = 0;; ++index) {
    std::array<wchar_t, 100> name{};
    DWORD nameSize = name.size();
    DWORD type = 0;
    DWORD number = 0;
    DWORD size = sizeof(number);
    const LSTATUS status = RegEnumValueW(state_->key.get(), index, name.data(), &nameSize, nullptr,
                                         &type, reinterpret_cast<BYTE*>(&number), &size);
    if (status == ERROR_MORE_DATA) continue;
    if (status != ERROR_SUCCESS) return pending;
    if (type == REG_DWORD && size == sizeof(number) && number == 0)
      pending.push_back(FromNative(name.data(), nameSize));
  }
}

bool SettingsKey::SetNumbers(std::span<const std::u16string> names, std::uint32_t value) {
  if (!valid()) return false;
  const DWORD number = value;
  bool allSet = true;
  for (const std::u16string& name : names) {
    allSet &=
        RegSetValueExW(state_->key.get(), ToNative(name), 0, REG_DWORD,
                       reinterpret_cast<const BYTE*>(&number), sizeof(number)) == ERROR_SUCCESS;
  }
  return allSet;
}

std::string SettingsPlace() { return "HKEY_LOCAL_MACHINE"; }

std::vector<std::string> SettingsObstacles() { return {}; }

}  // namespace talvorn::platform
