// Programs of the system, for what only they can tell.
#pragma once

#include <optional>
#include <span>
#include <string>

namespace talvorn::platform {

// What the program of this name (without a path; looked for where the system keeps its programs)
// writes to standard output, given these arguments and no shell. None when there is no such
// program, when it fails, takes longer than ten seconds, or writes more than 16 MiB.
[[nodiscard]] std::optional<std::string> OutputOf(const std::string& program,
                                                  std::span<const std::string> arguments);

}  // namespace talvorn::platform
