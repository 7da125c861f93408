// The content of a private-profile (INI) file; see platform/ini_file.h for what comes
// out of it. Any bytes make a file, if perhaps an empty one.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace talvorn::platform {

class IniText {
 public:
  // UTF-16 and UTF-8 are known by their marks; other bytes are in the narrow code page.
  explicit IniText(std::string_view bytes);

  std::uint32_t SectionNames(std::span<char16_t> names) const;
  std::uint32_t String(std::u16string_view section, std::u16string_view key,
                       std::span<char16_t> value) const;

 private:
  std::u16string text_;
};

}  // namespace talvorn::platform
