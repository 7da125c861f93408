// Unnamed event of this process. Any thread may set it; one thread waits.
#pragma once

#include <memory>

#include "platform/waitable.h"

namespace talvorn::platform {

class Event final : public Waitable {
 public:
  enum class Mode { kAutoReset, kManualReset };

  // No event: every operation on it fails, waits on it time out.
  Event();
  ~Event();
  Event(Event&& other) noexcept;
  Event& operator=(Event&& other) noexcept;

  // A new event, not set; no event when the system has none to give, or no memory.
  [[nodiscard]] static Event Create(Mode mode);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }
  bool Set() const;
  bool Reset() const;

  // True when the event is set; an auto-reset event is reset by that.
  [[nodiscard]] bool Test() const;

  // As Test(), but waits for the event. kFailed for no event.
  [[nodiscard]] WaitStatus Wait(WaitLimit limit) const;

  [[nodiscard]] std::intptr_t waitHandle() const override;

 private:
  struct State;

  std::unique_ptr<State> state_;
};

}  // namespace talvorn::platform
