#include "platform/posix/process_start.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace talvorn::platform {
namespace {

bool TakeStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    // Opened for the wrong direction. The lowest free number is this one.
    if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) return false;
  }
  return true;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);  // the lower limit serves a smaller machine
}

}  // namespace

bool PrepareProcess() {
  RaiseDescriptorLimit();
  signal(SIGPIPE, SIG_IGN);
  return TakeStandardDescriptors();
}

}  // namespace talvorn::platform
