// The text form of the registry: the .reg export format, in UTF-8 or UTF-16.
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

struct RegistryValue {
  std::u16string name;  // empty for the key's default value
  std::uint32_t type = 0;
  std::vector<std::byte> data;
};

// What a file holds under HKEY_LOCAL_MACHINE. Later lines go before earlier ones;
// lines that are no part of the format are passed over. Paths are without the root.
class RegistryFile {
 public:
  // Any bytes make a file, if perhaps an empty one.
  explicit RegistryFile(std::string bytes);

  [[nodiscard]] bool HasKey(std::u16string_view path) const;
  // In the order in which the names appear first; empty for no key.
  [[nodiscard]] std::vector<RegistryValue> ValuesOf(std::u16string_view path) const;

  // The file's bytes with one change; all other bytes are kept. None when there is
  // no such key to hold the values.
  [[nodiscard]] std::string WithKey(std::u16string_view path) const;
  [[nodiscard]] std::optional<std::string> WithDwords(std::u16string_view path,
                                                      std::span<const std::u16string> names,
                                                      std::uint32_t value) const;

 private:
  class Parser;

  enum class Encoding { kUtf8, kUtf16 };

  // A character of a line, by the offset of the line's first byte.
  struct Place {
    std::size_t line = 0;
    std::size_t character = 0;
  };
  struct Entry {
    RegistryValue value;
    bool deleted = false;
    Place begin;  // of the data, behind the '='
    Place end;
  };
  struct Key {
    std::vector<Entry> entries;
    std::unordered_map<std::u16string, std::size_t> index;  // by the name in capitals
    std::size_t headerEnd = 0;  // offset behind the line that begins the key
  };

  [[nodiscard]] std::size_t OffsetOf(Place place) const;
  [[nodiscard]] std::string Encode(std::u16string_view text) const;
  // Puts whole lines in at `offset`, which is the beginning of a line or the end.
  [[nodiscard]] std::string WithLines(std::size_t offset,
                                      const std::vector<std::u16string>& lines) const;

  std::string bytes_;
  Encoding encoding_ = Encoding::kUtf8;
  std::u16string lineEnd_ = u"\n";
  std::map<std::u16string, Key> keys_;  // by the path in capitals
};

}  // namespace talvorn::platform
