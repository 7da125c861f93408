// The programs that run on this machine.
#pragma once

#include <cstddef>
#include <string_view>

namespace talvorn::platform {

// How many processes run the program of this name, "talvorn-locator", in the network that this
// process sees.
[[nodiscard]] std::size_t CountProcesses(std::string_view program);

}  // namespace talvorn::platform
