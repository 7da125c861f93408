// Objects that programs on one machine share by name, with or without "Global\". They exist for as
// long as a living process holds them open.
#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "platform/waitable.h"

namespace talvorn::platform {

// Which accounts may use an object that is made: those that the system lets on its own,
// or everyone. On Linux everyone may use every object.
enum class ObjectAccess { kDefault, kEveryone };

class NamedObject {
 public:
  [[nodiscard]] bool valid() const { return state_ != nullptr; }
  // Whether who opens the name now gets this object. On Linux not any more once the folder
  // of the objects was made anew.
  [[nodiscard]] bool IsInPlace() const;
  void Close() { state_.reset(); }

 protected:
  struct State;  // of the system: what holds the object

  NamedObject() = default;  // none
  ~NamedObject() = default;
  NamedObject(NamedObject&& other) noexcept = default;
  NamedObject& operator=(NamedObject&& other) noexcept = default;
  explicit NamedObject(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

// A mutex of which only the existence counts; nobody ever owns it.
class NamedMutex : public NamedObject {
 public:
  NamedMutex() = default;

  // Creates the mutex, or opens the existing one. None on failure.
  [[nodiscard]] static NamedMutex Create(std::u16string_view name,
                                         ObjectAccess access = ObjectAccess::kDefault);
  // None when no process holds a mutex of this name.
  [[nodiscard]] static NamedMutex Open(std::u16string_view name);

 private:
  using NamedObject::NamedObject;
};

// A manual-reset event.
class NamedEvent : public NamedObject {
 public:
  NamedEvent() = default;

  // Creates the event, not set, or opens the existing one. None on failure.
  [[nodiscard]] static NamedEvent Create(std::u16string_view name,
                                         ObjectAccess access = ObjectAccess::kDefault);
  // None when no process holds an event of this name.
  [[nodiscard]] static NamedEvent Open(std::u16string_view name);

  // None of these blocks, whatever other holders do to the object.
  bool Set();
  bool Reset();
  // Releases the threads that wait at this moment and leaves the event not set.
  bool Pulse();

  struct WaitResult {
    enum class Status { kEvent, kInterrupted, kTimeout, kFailed };
    Status status = Status::kFailed;
    std::size_t index = 0;  // of the event that was signalled
  };
  // Waits until one of `events` is set or pulsed, or `interrupt` (may be null) is
  // signalled. Consumes nothing.
  [[nodiscard]] static WaitResult WaitAny(std::span<NamedEvent* const> events,
                                          const Waitable* interrupt, WaitLimit limit);

 private:
  using NamedObject::NamedObject;
};

}  // namespace talvorn::platform
