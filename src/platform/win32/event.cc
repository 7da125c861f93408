// Every event is a manual-reset one of the system, so that a wait on several handles
// consumes nothing. Of those that reset themselves, Test() and Wait() do the reset.
// With one waiting thread that is the same: what is set between its look and its
// reset is covered by the "set" that it returns.
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
