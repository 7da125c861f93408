#include "platform/console.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0) {
      return false;
    } else if (errno == EAGAIN) {
      // Whoever handed us the stream made it non-blocking.
      if (WaitForDescriptor(fd, POLLOUT, std::nullopt) == WaitStatus::kFailed) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

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

std::uint32_t CurrentProcessId() { return static_cast<std::uint32_t>(getpid()); }

}  // namespace talvorn::platform
