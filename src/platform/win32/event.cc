// Every event is a manual-reset one, so that WaitForAny() resets none; Test() and Wait() reset
// those of kAutoReset. A Set() between the wait and the reset counts for this one wait.
#include "platform/event.h"

#include <new>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/handle.h"
#include "platform/win32/wait.h"

namespace talvorn::platform {

struct Event::State {
  KernelHandle handle;
  Mode mode;
};

Event::Event() = default;
Event::~Event() = default;
Event::Event(Event&& other) noexcept = default;
Event& Event::operator=(Event&& other) noexcept = default;

Event Event::Create(Mode mode) {
  Event event;
  if (FaultHits(Fault::kEventCreate)) return event;
  KernelHandle handle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (handle.valid()) event.state_.reset(new (std::nothrow) State{std::move(handle), mode});
  return event;
}

bool Event::Set() const { return valid() && SetEvent(state_->handle.get()) != FALSE; }
bool Event::Reset() const { return valid() && ResetEvent(state_->handle.get()) != FALSE; }
bool Event::Test() const { return Wait(0) == WaitStatus::kSignalled; }

WaitStatus Event::Wait(WaitLimit limit) const {
  if (!valid()) return WaitStatus::kFailed;
  const WaitStatus status = WaitList(state_->handle.get()).Wait(limit);
  if (status == WaitStatus::kSignalled && state_->mode == Mode::kAutoReset) Reset();
  return status;
}

std::intptr_t Event::waitHandle() const {
  return valid() ? reinterpret_cast<std::intptr_t>(state_->handle.get()) : kNoWaitHandle;
}

}  // namespace talvorn::platform
