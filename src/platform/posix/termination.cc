#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include "platform/console.h"
#include "platform/entry.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/process_start.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

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

}  // namespace talvorn::platform
