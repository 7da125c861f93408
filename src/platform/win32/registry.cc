#include "platform/registry.h"

#include <memory>
#include <string>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/text_encoding.h"
#include "platform/win32/dword_size.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The standard rights to read, and to read and write, a key.
constexpr REGSAM kRead = 0x20019;
constexpr REGSAM kReadWrite = 0x2001F;

struct KeyPolicy {
  using Native = HKEY;
  static Native None() { return nullptr; }
  static void Close(Native key) { RegCloseKey(key); }
};
using KeyHandle = Handle<KeyPolicy>;

RegistryStatus StatusOf(LSTATUS error) {
  switch (error) {
    case ERROR_SUCCESS:
      return RegistryStatus::kOk;
    case ERROR_MORE_DATA:
      return RegistryStatus::kMoreData;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_NO_MORE_ITEMS:
      return RegistryStatus::kMissing;
    default:
      return RegistryStatus::kFailed;
  }
}

// A state on the key that `call` opens; none when it fails.
template <typename State, typename Call>
std::unique_ptr<State> StateOn(std::u16string_view path, Call call) {
  auto state = std::make_unique<State>();
  const std::u16string terminated(path);
  const bool open = call(ToNative(terminated), state->key.Receive()) == ERROR_SUCCESS;
  return open ? std::move(state) : nullptr;
}

// What `call` tells of a value whose data it stores in a buffer of `capacity` bytes.
template <typename Call>
RegistryResult Ask(std::size_t capacity, Call call) {
  DWORD type = 0;
  DWORD size = DwordSize(capacity);
  const RegistryStatus status = StatusOf(call(&type, &size));
  if (status != RegistryStatus::kOk && status != RegistryStatus::kMoreData)
    return {.status = status};
  return {status, type, size};
}

}  // namespace

struct RegistryKey::State {
  KeyHandle key;
};

RegistryKey::RegistryKey() = default;
RegistryKey::~RegistryKey() = default;
RegistryKey::RegistryKey(RegistryKey&& other) noexcept = default;
RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept = default;

RegistryKey RegistryKey::Open(std::u16string_view path, RegistryAccess access) {
  RegistryKey key;
  if (FaultHits(Fault::kRegistryOpen)) return key;
  const REGSAM rights = access == RegistryAccess::kReadWrite ? kReadWrite : kRead;
  key.state_ = StateOn<State>(path, [rights](const wchar_t* native, HKEY* opened) {
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, native, 0, rights, opened);
  });
  return key;
}

RegistryKey RegistryKey::Create(std::u16string_view path) {
  RegistryKey key;
  key.state_ = StateOn<State>(path, [](const wchar_t* native, HKEY* opened) {
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, native, 0, nullptr, REG_OPTION_NON_VOLATILE,
                           kReadWrite, nullptr, opened, nullptr);
  });
  return key;
}

RegistryResult RegistryKey::Query(std::u16string_view name, std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  return Ask(data.size(), [&](DWORD* type, DWORD* size) {
    return RegQueryValueExW(state_->key.get(), ToNative(std::u16string(name)), nullptr, type,
                            reinterpret_cast<BYTE*>(data.data()), size);
  });
}

RegistryResult RegistryKey::QueryNarrow(std::u16string_view name, std::span<char> data) const {
  if (state_ == nullptr) return {};
  return Ask(data.size(), [&](DWORD* type, DWORD* size) {
    return RegQueryValueExA(state_->key.get(), WideToNarrow(name).c_str(), nullptr, type,
                            reinterpret_cast<BYTE*>(data.data()), size);
  });
}

RegistryResult RegistryKey::Enumerate(std::uint32_t index, std::span<char16_t> name,
                                      std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  return Ask(data.size(), [&](DWORD* type, DWORD* size) {
    DWORD nameSize = DwordSize(name.size());
    return RegEnumValueW(state_->key.get(), index, ToNative(name.data()), &nameSize, nullptr, type,
                         reinterpret_cast<BYTE*>(data.data()), size);
  });
}

bool RegistryKey::SetDwords(std::span<const std::u16string> names, std::uint32_t value) {
  if (state_ == nullptr) return false;
  const DWORD native = value;
  bool allSet = true;
  for (const std::u16string& name : names) {
    allSet &=
        RegSetValueExW(state_->key.get(), ToNative(name), 0, REG_DWORD,
                       reinterpret_cast<const BYTE*>(&native), sizeof(native)) == ERROR_SUCCESS;
  }
  return allSet;
}

}  // namespace talvorn::platform
