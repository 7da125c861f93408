// Every event is a manual-reset one of the system, so that a wait on several handles
// consumes nothing. Of those that reset themselves, Test() and Wait() do the reset.
// With one waiting thread that is the same: what is set between its look and its
// reset is covered by the "set" that it returns.
#include "platform/event.h"

#include <array>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/wait.h"

namespace talvorn::platform {
namespace {

HANDLE Native(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

}  // namespace

Event::~Event() {
  if (handle_ != kNoWaitHandle) CloseHandle(Native(handle_));
}

Event::Event(Event&& other) noexcept
    : Waitable(other), handle_(std::exchange(other.handle_, kNoWaitHandle)), mode_(other.mode_) {}

Event& Event::operator=(Event&& other) noexcept {
  if (this != &other) {
    if (handle_ != kNoWaitHandle) CloseHandle(Native(handle_));
    handle_ = std::exchange(other.handle_, kNoWaitHandle);
    mode_ = other.mode_;
  }
  return *this;
}

Event Event::Create(Mode mode) {
  if (FaultHits(Fault::kEventCreate)) return {};
  const HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (handle == nullptr) return {};
  return Event(reinterpret_cast<std::intptr_t>(handle), mode);
}

bool Event::Set() const { return handle_ != kNoWaitHandle && SetEvent(Native(handle_)) != FALSE; }

bool Event::Reset() const {
  return handle_ != kNoWaitHandle && ResetEvent(Native(handle_)) != FALSE;
}

bool Event::Test() const { return Wait(0) == WaitStatus::kSignalled; }

WaitStatus Event::Wait(WaitLimit limit) const {
  if (handle_ == kNoWaitHandle) return WaitStatus::kFailed;
  const WaitStatus status = WaitForHandles(std::array{Native(handle_)}, limit);
  if (status == WaitStatus::kSignalled && mode_ == Mode::kAutoReset) Reset();
  return status;
}

}  // namespace talvorn::platform
