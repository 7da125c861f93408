#include "platform/event.h"

#include <sys/eventfd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {

// The flag tells without a system call; the descriptor, which is readable while the flag
// is set, is there to wait on.
struct Event::State {
  Descriptor descriptor;
  Mode mode;
  std::mutex mutex{};  // of changes
  std::atomic<bool> set = false;

  bool Clear() {
    if (!set.load(std::memory_order_acquire)) return false;
    const std::lock_guard lock(mutex);
    eventfd_t count = 0;
    (void)eventfd_read(descriptor.get(), &count);
    return set.exchange(false);
  }
};

Event::Event() = default;
Event::~Event() = default;
Event::Event(Event&& other) noexcept = default;
Event& Event::operator=(Event&& other) noexcept = default;

Event Event::Create(Mode mode) {
  Event event;
  if (FaultHits(Fault::kEventCreate)) return event;
  Descriptor descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (descriptor.valid()) event.state_.reset(new (std::nothrow) State{std::move(descriptor), mode});
  return event;
}

bool Event::Set() const {
  if (!valid()) return false;
  const std::lock_guard lock(state_->mutex);
  return state_->set.exchange(true) || eventfd_write(state_->descriptor.get(), 1) == 0;
}

bool Event::Reset() const {
  if (valid()) (void)state_->Clear();
  return valid();
}

bool Event::Test() const {
  if (!valid()) return false;
  return state_->mode == Mode::kAutoReset ? state_->Clear()
                                          : state_->set.load(std::memory_order_acquire);
}

WaitStatus Event::Wait(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  if (Test()) return WaitStatus::kSignalled;
  const WaitStatus status = WaitForDescriptor(state_->descriptor.get(), POLLIN, limit);
  if (status != WaitStatus::kSignalled) return status;
  return Test() ? WaitStatus::kSignalled : WaitStatus::kTimeout;
}

std::intptr_t Event::waitHandle() const {
  return valid() ? state_->descriptor.get() : kNoWaitHandle;
}

}  // namespace talvorn::platform
