// Names of mailslots, which are the same on both systems.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// What every name begins with, in any case.
inline constexpr std::u16string_view kMailslotPrefix = u"\\\\.\\mailslot\\";

[[nodiscard]] inline std::u16string MailslotName(std::u16string_view own) {
  return std::u16string(kMailslotPrefix).append(own);
}

// The one that the locator reads.
inline const std::u16string kLocatorMailslot = MailslotName(u"talvorn_out");

// True for the prefix followed by a name, or by names with backslashes between them: none of them
// empty, "." or "..", no slashes, no control characters.
[[nodiscard]] bool IsMailslotName(std::u16string_view name);

}  // namespace talvorn::platform
