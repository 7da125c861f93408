// Standard streams of the command-line tools.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace talvorn::platform {

// UTF-8 text to standard output or standard error. False when it could not be
// written (closed pipe, full disk).
bool WriteOutput(std::string_view text);
bool WriteError(std::string_view text);

// True once nobody reads the pipe any more that standard output is.
[[nodiscard]] bool OutputAbandoned();

[[nodiscard]] bool OutputIsTerminal();

struct TerminalSize {
  std::uint32_t columns = 0;
  std::uint32_t rows = 0;
};
// Of the terminal that standard output is; none when it is none or does not tell.
[[nodiscard]] std::optional<TerminalSize> OutputTerminalSize();

}  // namespace talvorn::platform
