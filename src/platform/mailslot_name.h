// Names of mailslots, which are the same on both systems.
#pragma once

#include <string_view>

namespace talvorn::platform {

// What every name begins with, in any case.
inline constexpr std::u16string_view kMailslotPrefix = u"\\\\.\\mailslot\\";
// The one that the locator reads.
inline constexpr std::u16string_view kLocatorMailslot = u"\\\\.\\mailslot\\talvorn_out";

}  // namespace talvorn::platform
