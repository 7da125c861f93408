// Unnamed event of this process. Any thread may set it; one thread waits.
#pragma once

#include "platform/waitable.h"

namespace talvorn::platform {

class Event final : public Waitable {
 public:
  enum class Mode { kAutoReset, kManualReset };

  // No event: every operation on it fails, waits on it time out.
  Event() = default;
  ~Event();
  Event(Event&& other) noexcept;
  Event& operator=(Event&& other) noexcept;

  // A new event, not set; no event when the system has none to give.
  [[nodiscard]] static Event Create(Mode mode);

  [[nodiscard]] bool valid() const { return handle_ != kNoWaitHandle; }
  bool Set() const;
  bool Reset() const;

  // True when the event is set; an auto-reset event is reset by that.
  [[nodiscard]] bool Test() const;

  // As Test(), but waits for the event. kFailed for no event.
  [[nodiscard]] WaitStatus Wait(WaitLimit limit) const;

  [[nodiscard]] std::intptr_t waitHandle() const override { return handle_; }

 private:
  Event(std::intptr_t handle, Mode mode) : handle_(handle), mode_(mode) {}

  std::intptr_t handle_ = kNoWaitHandle;
  Mode mode_ = Mode::kAutoReset;
};

}  // namespace talvorn::platform
