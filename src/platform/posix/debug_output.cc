#include "platform/debug_output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/posix/descriptor.h"
#include "platform/posix/standard_error.h"
#include "platform/posix/wait.h"
#include "platform/terminal_escape.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {

// One write without waiting. A pipe or terminal is opened anew for it: O_NONBLOCK on standard
// error itself would also hit the programs that share it.
bool WriteIfRoom(std::string_view text) {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  if (S_ISSOCK(status.st_mode)) {
    return send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
  }
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  if (PollDescriptors({&room, 1}, 0) != 1 || room.revents != POLLOUT) return false;

  std::string escaped;
  if (S_ISCHR(status.st_mode) && isatty(STDERR_FILENO) != 0) {
    escaped = EscapeForTerminal(Utf8ToWide(text), u"\t\n");
    text = escaped;
  }

  Descriptor own;
  if (!S_ISREG(status.st_mode)) {
    own = Descriptor(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    // A pipe with room takes this much at once.
    if (!own.valid()) text = text.substr(0, PIPE_BUF);
  }
  return write(own.valid() ? own.get() : STDERR_FILENO, text.data(), text.size()) > 0;
}

void DebugOutputW(std::u16string_view text) { (void)WriteIfRoom(WideToUtf8(text)); }

void DebugOutputA(std::string_view text) {
  const bool isUtf8 = WideToUtf8(Utf8ToWide(text)) == text;
  (void)(isUtf8 ? WriteIfRoom(text) : WriteIfRoom(WideToUtf8(NarrowToWide(text))));
}

}  // namespace talvorn::platform
