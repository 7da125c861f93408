#include "platform/event.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

// What a thread wrote before it set an event is visible to the thread that finds
// the event set. The kernel sees to that in practice; these counters, shared by
// events whose descriptors collide, say it in the terms of the language.
std::atomic<std::uint32_t>& OrderOf(std::intptr_t handle) {
  static std::array<std::atomic<std::uint32_t>, 64> orders;
  return orders[static_cast<std::size_t>(handle) % orders.size()];
}

}  // namespace

Event::~Event() {
  if (handle_ != kNoWaitHandle) close(static_cast<int>(handle_));
}

Event::Event(Event&& other) noexcept
    : Waitable(other), handle_(std::exchange(other.handle_, kNoWaitHandle)), mode_(other.mode_) {}

Event& Event::operator=(Event&& other) noexcept {
  if (this != &other) {
    if (handle_ != kNoWaitHandle) close(static_cast<int>(handle_));
    handle_ = std::exchange(other.handle_, kNoWaitHandle);
    mode_ = other.mode_;
  }
  return *this;
}

Event Event::Create(Mode mode) {
  if (FaultHits(Fault::kEventCreate)) return {};
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) return {};
  return Event(fd, mode);
}

bool Event::Set() const {
  if (handle_ == kNoWaitHandle) return false;
  OrderOf(handle_).fetch_add(1, std::memory_order_release);
  // A counter that is full is set as well.
  return eventfd_write(static_cast<int>(handle_), 1) == 0 || errno == EAGAIN;
}

bool Event::Reset() const {
  if (handle_ == kNoWaitHandle) return false;
  eventfd_t count = 0;
  return eventfd_read(static_cast<int>(handle_), &count) == 0 || errno == EAGAIN;
}

bool Event::Test() const {
  if (handle_ == kNoWaitHandle) return false;
  const int fd = static_cast<int>(handle_);
  bool set = false;
  if (mode_ == Mode::kAutoReset) {
    eventfd_t count = 0;
    set = eventfd_read(fd, &count) == 0;
  } else {
    set = WaitForDescriptor(fd, POLLIN, 0) == WaitStatus::kSignalled;
  }
  if (set) (void)OrderOf(handle_).load(std::memory_order_acquire);
  return set;
}

WaitStatus Event::Wait(WaitLimit limit) const {
  if (handle_ == kNoWaitHandle) return WaitStatus::kFailed;
  if (Test()) return WaitStatus::kSignalled;
  const WaitStatus status = WaitForDescriptor(static_cast<int>(handle_), POLLIN, limit);
  if (status != WaitStatus::kSignalled) return status;
  return Test() ? WaitStatus::kSignalled : WaitStatus::kTimeout;
}

}  // namespace talvorn::platform
