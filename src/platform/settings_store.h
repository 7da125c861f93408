// Settings in keys: the registry under HKEY_LOCAL_MACHINE; on Linux a text file in the .reg export
// format, of which an open key is a snapshot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace talvorn::platform {

enum class SettingsAccess { kRead, kReadWrite };

// Room for a text, its terminator included.
inline constexpr std::size_t kSettingsTextCapacity = 1'024;

class SettingsKey {
 public:
  SettingsKey() = default;  // not open
  SettingsKey(SettingsKey&& other) noexcept = default;
  SettingsKey& operator=(SettingsKey&& other) noexcept = default;

  // Not open when the key does not exist or may not be opened so. Names of keys and
  // values compare without case.
  [[nodiscard]] static SettingsKey Open(std::u16string_view path, SettingsAccess access);
  // As Open for reading and writing, but makes the key when it does not exist.
  [[nodiscard]] static SettingsKey Create(std::u16string_view path);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // A number of 32 bits; none when the value is missing or anything else.
  [[nodiscard]] std::optional<std::uint32_t> Number(std::u16string_view name) const;
  // A text, up to its terminator; none when the value is missing, of another type, or
  // there is no room for it.
  [[nodiscard]] std::optional<std::u16string> Text(std::u16string_view name) const;
  // As Text, but in the narrow code page of the system; on Linux in UTF-8, as the path
  // names there are. One that fills all the room loses its last character.
  [[nodiscard]] std::optional<std::string> NarrowText(std::u16string_view name) const;
  // The names of all values, in the store's order.
  [[nodiscard]] std::vector<std::u16string> Names() const;
  // The names, at most 99 characters long, of the numbers that are 0, in the store's
  // order.
  [[nodiscard]] std::vector<std::u16string> PendingNumbers() const;

  // Makes or replaces numbers in the store (in a file all in one step), but perhaps not in this
  // open key. False when some could not be set.
  bool SetNumbers(std::span<const std::u16string> names, std::uint32_t value);
  bool SetNumber(std::u16string_view name, std::uint32_t value) {
    const std::u16string only(name);
    return SetNumbers({&only, 1}, value);
  }

 private:
  struct State;
  explicit SettingsKey(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

// Where settings are stored, for people: "HKEY_LOCAL_MACHINE", on Linux the file.
[[nodiscard]] std::string SettingsPlace();

// What is wrong with the store as a whole, each a sentence in UTF-8 without a full stop: on Linux
// that the file cannot be read, or the lines in it that mean nothing.
[[nodiscard]] std::vector<std::string> SettingsObstacles();

}  // namespace talvorn::platform
