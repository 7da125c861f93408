// Keys and values under HKEY_LOCAL_MACHINE. On Linux the store is one text file in
// the .reg export format; an open key is a consistent snapshot of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace talvorn::platform {

enum class RegistryAccess { kRead, kReadWrite };

// Types that the locator looks at; others keep their Windows number.
inline constexpr std::uint32_t kRegistryString = 1;
inline constexpr std::uint32_t kRegistryDword = 4;

// kMoreData: the value is there but does not fit. kMissing: no such value, or no
// more values.
enum class RegistryStatus { kOk, kMoreData, kMissing, kFailed };

struct RegistryResult {
  RegistryStatus status = RegistryStatus::kFailed;
  std::uint32_t type = 0;
  std::uint32_t size = 0;  // of the data in bytes, terminators included
};

class RegistryKey {
 public:
  RegistryKey();  // not open
  ~RegistryKey();
  RegistryKey(RegistryKey&& other) noexcept;
  RegistryKey& operator=(RegistryKey&& other) noexcept;

  // Not open when the key does not exist or may not be opened so. Key and value
  // names compare without case.
  [[nodiscard]] static RegistryKey Open(std::u16string_view path, RegistryAccess access);
  // As Open for reading and writing, but makes the key when it does not exist.
  [[nodiscard]] static RegistryKey Create(std::u16string_view path);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // Data as stored: little-endian numbers, strings in UTF-16 with terminator.
  [[nodiscard]] RegistryResult Query(std::u16string_view name, std::span<std::byte> data) const;
  // As Query, but a string comes in the narrow code page of the system; on Linux in
  // UTF-8, as the path names there are.
  [[nodiscard]] RegistryResult QueryNarrow(std::u16string_view name, std::span<char> data) const;

  // The value at `index`, counted from 0. `name` receives the terminated name.
  [[nodiscard]] RegistryResult Enumerate(std::uint32_t index, std::span<char16_t> name,
                                         std::span<std::byte> data) const;

  // Makes or replaces values in the store, all in one step where the store is a file;
  // queries of this key may still show what was there when it was opened. False when
  // some could not be set.
  bool SetDwords(std::span<const std::u16string> names, std::uint32_t value);
  bool SetDword(std::u16string_view name, std::uint32_t value) {
    const std::u16string only(name);
    return SetDwords({&only, 1}, value);
  }

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace talvorn::platform
