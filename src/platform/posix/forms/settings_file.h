// The text form of the settings: the .reg export format, in UTF-8 or UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace talvorn::platform {

// Types of values, by their Windows numbers.
enum class SettingType : std::uint32_t { kString = 1, kBinary = 3, kNumber = 4 };

struct Setting {
  std::string name;  // empty for the key's default value
  SettingType type{};
  std::string data;  // as stored: little-endian numbers, texts in UTF-16 with terminator
};

// The keys under HKEY_LOCAL_MACHINE. Later lines win; lines that do not belong to the format are
// skipped. Paths (without the root) and names are UTF-8 and compare without case.
class SettingsFile {
 public:
  // Any bytes make a file, if perhaps an empty one.
  explicit SettingsFile(std::string bytes);

  [[nodiscard]] bool HasKey(std::string_view path) const;
  // Null when there is no such value.
  [[nodiscard]] const Setting* Find(std::string_view path, std::string_view name) const;
  // In the order in which the names appear first; empty for no key.
  [[nodiscard]] std::vector<const Setting*> ValuesOf(std::string_view path) const;

  // The numbers, from 1 on, of the first lines that were skipped though they are no comments.
  [[nodiscard]] std::span<const std::size_t> strangeLines() const { return strangeLines_; }

  // The file's bytes with one change; all other bytes are kept. None when there is
  // no such key to hold the values.
  [[nodiscard]] std::string WithKey(std::string_view path) const;
  [[nodiscard]] std::optional<std::string> WithNumbers(std::string_view path,
                                                       std::span<const std::string> names,
                                                       std::uint32_t value) const;

 private:
  class Parser;

  struct Entry {
    Setting value;
    bool deleted = false;
    std::size_t begin = 0;  // of the data in the text, behind the '='
    std::size_t end = 0;
  };
  struct Key {
    std::vector<Entry> entries;
    std::unordered_map<std::string, std::size_t> index;  // by the name in capitals
    std::size_t headerEnd = 0;  // in the text, behind the line that begins the key
  };
  struct Edit {
    std::size_t begin;
    std::size_t end;
    std::string replacement;
  };

  // The file in UTF-8, without the mark of its encoding.
  [[nodiscard]] std::string_view Text() const;
  [[nodiscard]] const Key* FindKey(std::string_view path) const;
  // Puts whole lines in at `offset`, which is the beginning of a line or the end.
  [[nodiscard]] Edit Insertion(std::size_t offset, std::span<const std::string> lines) const;
  [[nodiscard]] std::string With(std::vector<Edit> edits) const;

  std::string bytes_;
  std::size_t markSize_ = 0;
  bool isUtf16_ = false;
  std::string decoded_;              // of a file in UTF-16
  std::map<std::string, Key> keys_;  // by the path in capitals
  std::vector<std::size_t> strangeLines_;
};

}  // namespace talvorn::platform
