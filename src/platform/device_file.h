// The file of static devices: a private-profile (INI) file with a section for each.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace talvorn::platform {

struct ListedDevice {
  std::u16string name;     // of the section
  std::u16string address;  // its "IpAddress", cut to 99 characters; empty when there is none
};

// The sections in the file's order; none when there is no file. Names compare without case: of
// several sections with one name the first one's address counts. Blanks and one pair of quotes
// around an address do not belong to it.
[[nodiscard]] std::vector<ListedDevice> ReadDeviceFile(std::u16string_view path);

inline constexpr std::size_t kAddressCapacity = 100;  // characters, with the terminator
inline constexpr std::u16string_view kAddressKey = u"IpAddress";

}  // namespace talvorn::platform
