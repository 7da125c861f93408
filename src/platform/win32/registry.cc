#include "platform/registry.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string>

#include "platform/fault_injection.h"
#include "platform/text_encoding.h"
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

DWORD SizeOf(std::size_t size) {
  return static_cast<DWORD>(std::min<std::size_t>(size, std::numeric_limits<DWORD>::max()));
}

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

RegistryResult ResultOf(LSTATUS error, DWORD type, DWORD size) {
  const RegistryStatus status = StatusOf(error);
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
  try {
    auto state = std::make_unique<State>();
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, ToNative(std::u16string(path)), 0,
                      access == RegistryAccess::kReadWrite ? kReadWrite : kRead,
                      state->key.Receive()) == ERROR_SUCCESS) {
      key.state_ = std::move(state);
    }
  } catch (const std::bad_alloc&) {
    // Not open.
  }
  return key;
}

RegistryKey RegistryKey::Create(std::u16string_view path) {
  RegistryKey key;
  try {
    auto state = std::make_unique<State>();
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, ToNative(std::u16string(path)), 0, nullptr,
                        REG_OPTION_NON_VOLATILE, kReadWrite, nullptr, state->key.Receive(),
                        nullptr) == ERROR_SUCCESS) {
      key.state_ = std::move(state);
    }
  } catch (const std::bad_alloc&) {
    // Not open.
  }
  return key;
}

RegistryResult RegistryKey::Query(std::u16string_view name, std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  try {
    DWORD type = 0;
    DWORD size = SizeOf(data.size());
    const LSTATUS error =
        RegQueryValueExW(state_->key.get(), ToNative(std::u16string(name)), nullptr, &type,
                         reinterpret_cast<BYTE*>(data.data()), &size);
    return ResultOf(error, type, size);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

RegistryResult RegistryKey::QueryNarrow(std::u16string_view name, std::span<char> data) const {
  if (state_ == nullptr) return {};
  try {
    DWORD type = 0;
    DWORD size = SizeOf(data.size());
    const LSTATUS error = RegQueryValueExA(state_->key.get(), WideToNarrow(name).c_str(), nullptr,
                                           &type, reinterpret_cast<BYTE*>(data.data()), &size);
    return ResultOf(error, type, size);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

RegistryResult RegistryKey::Enumerate(std::uint32_t index, std::span<char16_t> name,
                                      std::span<std::byte> data) const {
  if (state_ == nullptr) return {};
  DWORD nameSize = SizeOf(name.size());
  DWORD type = 0;
  DWORD size = SizeOf(data.size());
  const LSTATUS error = RegEnumValueW(state_->key.get(), index, ToNative(name.data()), &nameSize,
                                      nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
  return ResultOf(error, type, size);
}

bool RegistryKey::SetDword(std::u16string_view name, std::uint32_t value) {
  if (state_ == nullptr) return false;
  try {
    const DWORD native = value;
    return RegSetValueExW(state_->key.get(), ToNative(std::u16string(name)), 0, REG_DWORD,
                          reinterpret_cast<const BYTE*>(&native), sizeof(native)) == ERROR_SUCCESS;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace talvorn::platform
