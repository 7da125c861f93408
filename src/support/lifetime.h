// How long the locator lives: until it is ended, or in dynamic mode some time after its last
// client has gone.
#pragma once

#include <string_view>

#include "platform/ascii_case.h"

namespace talvorn {

inline constexpr std::u16string_view kDynamicMode = u"/dynamic";

// `commandLine`: everything behind the executable's name.
[[nodiscard]] inline bool IsDynamic(std::u16string_view commandLine) {
  return platform::EqualsIgnoringCase(commandLine, kDynamicMode);
}

}  // namespace talvorn
