// Objects that programs on one machine share by name. They exist as long as some
// process holds them open; a killed process lets go of its own. Names are those of
// Windows, with or without "Global\"; the scope is the whole machine either way.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

#include "platform/waitable.h"

namespace talvorn::platform {

// Which accounts may use an object that is made: those that the system lets on its own,
// or everyone. On Linux everyone may use every object.
enum class ObjectAccess { kDefault, kEveryone };

class NamedObject {
 public:
  [[nodiscard]] bool valid() const { return state_ != nullptr; }
  void Close() { state_.reset(); }

 protected:
  struct State;
  struct StateDeleter {
    void operator()(State* state) const;
  };
  std::unique_ptr<State, StateDeleter> state_;  // null when there is none
};

// A mutex of which only the existence counts; nobody ever owns it.
class NamedMutex : public NamedObject {
 public:
  // Creates the mutex, or opens the existing one. None on failure.
  [[nodiscard]] static NamedMutex Create(std::u16string_view name,
                                         ObjectAccess access = ObjectAccess::kDefault);
  // None when no process holds a mutex of this name.
  [[nodiscard]] static NamedMutex Open(std::u16string_view name);
};

class NamedEvent : public NamedObject {
 public:
  enum class Mode { kAutoReset, kManualReset };

  // Creates the event, not set, or opens the existing one, whose mode then counts.
  // None on failure.
  [[nodiscard]] static NamedEvent Create(std::u16string_view name, Mode mode,
                                         ObjectAccess access = ObjectAccess::kDefault);
  // None when no process holds an event of this name.
  [[nodiscard]] static NamedEvent Open(std::u16string_view name);

  // None of these blocks, whatever other holders do to the object.
  bool Set();
  bool Reset();
  // Releases the threads that wait at this moment (of an auto-reset event, one)
  // and leaves the event not set.
  bool Pulse();

  struct WaitResult {
    enum class Status { kEvent, kInterrupted, kTimeout, kFailed };
    Status status = Status::kFailed;
    std::size_t index = 0;  // of the event that was signalled
  };
  // Waits until one of `events` is set or pulsed, or `interrupt` (may be null) is
  // signalled. Consumes an auto-reset event, never the interrupt.
  [[nodiscard]] static WaitResult WaitAny(std::span<NamedEvent* const> events,
                                          const Waitable* interrupt, WaitLimit limit);
};

}  // namespace talvorn::platform
