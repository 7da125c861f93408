// Names of mailslots, which are the same on both systems.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace talvorn::platform {

// What every name begins with, in any case.
inline constexpr std::u16string_view kMailslotPrefix = u"\\\\.\\mailslot\\";

// A whole name, from the part behind the beginning.
template <std::size_t kSize>
struct MailslotName {
  consteval explicit MailslotName(const char16_t (&own)[kSize]) {
    std::ranges::copy(own, std::ranges::copy(kMailslotPrefix, text.begin()).out);
  }
  constexpr operator std::u16string_view() const { return text.data(); }

  std::array<char16_t, kMailslotPrefix.size() + kSize> text{};
};

// The one that the locator reads.
inline constexpr MailslotName kLocatorName(u"talvorn_out");
inline constexpr std::u16string_view kLocatorMailslot = kLocatorName;

// True for the beginning above, on this machine, followed by a name or a path of names
// with backslashes between them, none of them empty, "." or "..": no slashes and no
// control characters.
[[nodiscard]] bool IsMailslotName(std::u16string_view name);

}  // namespace talvorn::platform
