// The programs that run on this machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace talvorn::platform {

struct RunningProgram {
  std::uint32_t processId = 0;
  // What it was given behind its own name, with blanks between; none when this account may not
  // know.
  std::optional<std::u16string> commandLine;
};

// The processes that run the program of this name, "talvorn-locator", in the network that this
// process sees.
[[nodiscard]] std::vector<RunningProgram> RunningPrograms(std::string_view program);

}  // namespace talvorn::platform
