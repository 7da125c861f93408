// Process entry and standard streams of the command-line tools.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/waitable.h"

namespace talvorn {

// Defined by each tool. `arguments` are UTF-8, without the program's name.
// Returns the exit code.
int ToolMain(const std::vector<std::string>& arguments);

namespace platform {

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

// Signalled, and never reset, once the user has asked the tool to end (Ctrl-C,
// SIGTERM). The tool then leaves by itself; one that never calls this is ended by
// the system. The first call comes before the tool starts a thread.
[[nodiscard]] const Waitable& InterruptRequest();

[[nodiscard]] std::uint32_t CurrentProcessId();

}  // namespace platform
}  // namespace talvorn
