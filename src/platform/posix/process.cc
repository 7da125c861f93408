#include "platform/process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"
#include "platform/posix/process_start.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"

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

// What a thread gets when nobody says how much: the look-up of a name, which runs what
// the administrator has put into the system for that, needs the most.
void SizeDefaultStack() {
  constexpr std::size_t kStackSize = 2 << 20;
  pthread_attr_t attributes;
  if (pthread_getattr_default_np(&attributes) != 0) return;
  if (pthread_attr_setstacksize(&attributes, kStackSize) == 0) {
    (void)pthread_setattr_default_np(&attributes);
  }
  pthread_attr_destroy(&attributes);
}

// The signals that ask for the end, as a descriptor. What has arrived is never
// taken from it, so that it stays readable; later ones change nothing.
class SignalRequest final : public Waitable {
 public:
  // Watches nothing yet: never readable.
  SignalRequest() : descriptor_(signalfd(-1, &watched_, SFD_CLOEXEC | SFD_NONBLOCK)) {}

  bool Watch() {
    if (!descriptor_.valid()) return false;
    if (watching_) return true;
    sigaddset(&watched_, SIGTERM);
    sigaddset(&watched_, SIGINT);
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) != 0 || hangup.sa_handler != SIG_IGN) {
      sigaddset(&watched_, SIGHUP);
    }
    watching_ = signalfd(descriptor_.get(), &watched_, 0) >= 0 &&
                pthread_sigmask(SIG_BLOCK, &watched_, nullptr) == 0;
    return watching_;
  }

  [[nodiscard]] std::intptr_t waitHandle() const override {
    return descriptor_.valid() ? descriptor_.get() : kNoWaitHandle;
  }

 private:
  sigset_t watched_{};
  Descriptor descriptor_;
  bool watching_ = false;
};

SignalRequest& Request() {
  static SignalRequest request;
  return request;
}

}  // namespace

bool PrepareProcess() {
  RaiseDescriptorLimit();
  SizeDefaultStack();
  signal(SIGPIPE, SIG_IGN);
  return TakeStandardDescriptors();
}

bool WatchTerminationSignals() { return Request().Watch(); }

const Waitable& TerminationRequest() { return Request(); }

bool TerminationRequested() {
  const std::intptr_t handle = Request().waitHandle();
  return handle != kNoWaitHandle &&
         WaitForDescriptor(static_cast<int>(handle), POLLIN, 0) == WaitStatus::kSignalled;
}

const Waitable& InterruptRequest() {
  // Only a tool that looks takes over from the system; any other is ended by it.
  // Without a descriptor that stays so.
  (void)WatchTerminationSignals();
  return Request();
}

void ReportReady() {
  constexpr std::string_view kReady = "READY=1";
  const char* const path = Environment("NOTIFY_SOCKET", "");
  if (path[0] != '/' || !UnixAddress::Fits(path)) return;
  const UnixAddress address{std::string_view(path)};
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  (void)sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL, address.get(),
               address.size());
}

std::uint32_t CurrentProcessId() { return static_cast<std::uint32_t>(getpid()); }

std::optional<std::string> TemporaryDirectory(std::size_t capacity) {
  const char* const configured = getenv("TMPDIR");
  std::string directory = configured != nullptr && configured[0] == '/' ? configured : "/tmp";
  if (directory.back() != '/') directory.push_back('/');
  if (directory.size() >= capacity) return std::nullopt;
  return directory;
}

char PathSeparatorFor(std::string_view path) { return path.starts_with('/') ? '/' : '\\'; }

std::string_view MeetingPlaceVariable() { return "TALVORN_RUNTIME_DIR"; }

}  // namespace talvorn::platform
