// Names of mailslots, which are the same on both systems.
#pragma once

#include <string_view>

namespace talvorn::platform {

// What every name begins with, in any case.
inline constexpr std::u16string_view kMailslotPrefix = u"\\\\.\\mailslot\\";

}  // namespace talvorn::platform
