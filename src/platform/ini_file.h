// Private-profile (INI) files, read with the results of the Windows functions of
// that purpose: names without case, blanks and one pair of quotes around a value
// removed, results cut to the buffer.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace talvorn::platform {

// Section names in file order, each terminated, an empty one at the end. Returns
// the number of characters written without the last terminator; size - 2 when the
// names did not fit; 0 when there is no file or no section.
[[nodiscard]] std::uint32_t ProfileSectionNames(std::span<char16_t> names,
                                                std::u16string_view path);

// The value of `key` in `section`, terminated; empty when there is none. Returns
// its length in characters, cut to the buffer.
[[nodiscard]] std::uint32_t ProfileString(std::u16string_view section, std::u16string_view key,
                                          std::span<char16_t> value, std::u16string_view path);

}  // namespace talvorn::platform
