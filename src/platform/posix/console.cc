#include "platform/console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/posix/io.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
bool WriteOutput(std::string_view text) { return WriteAll(STDOUT_FILENO, text); }
bool WriteError(std::string_view text) { return WriteAll(STDERR_FILENO, text); }

bool OutputAbandoned() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return PollDescriptors({&output, 1}, 0) > 0 && (output.revents & POLLERR) != 0;
}

bool OutputIsTerminal() { return isatty(STDOUT_FILENO) != 0; }

std::optional<TerminalSize> OutputTerminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return std::nullopt;
  }
  return TerminalSize{size.ws_col, size.ws_row};
}

}  // namespace talvorn::platform
