// Mutexes and events of the system. A name without "Global\" is one of the session.
#include "platform/named_object.h"

#include <array>
#include <cstddef>
#include <string>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/everyone_access.h"
#include "platform/win32/handle.h"
#include "platform/win32/wait.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The access that locator and clients ask for: all.
constexpr DWORD kAllMutexAccess = 0x1F0001;
constexpr DWORD kAllEventAccess = 0x1F0003;

}  // namespace

struct NamedObject::State {
  // What `make` gives for the terminated name; null when that is no handle.
  template <typename Make>
  [[nodiscard]] static std::unique_ptr<State, StateDeleter> On(std::u16string_view name,
                                                               Make make) {
    if (FaultHits(Fault::kNamedObjectOpen)) return nullptr;
    std::unique_ptr<State, StateDeleter> state(new State);
    state->handle = KernelHandle(make(ToNative(std::u16string(name))));
    return state->handle.valid() ? std::move(state) : nullptr;
  }

  KernelHandle handle;
};

void NamedObject::StateDeleter::operator()(State* state) const { delete state; }

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess access) {
  NamedMutex mutex;
  mutex.state_ = State::On(name, [access](const wchar_t* native) {
    if (access == ObjectAccess::kEveryone) {
      EveryoneAccess everyone(kAllMutexAccess);
      const HANDLE made = CreateMutexW(everyone.attributes(), FALSE, native);
      // What another account made for itself exists as long as it is open here.
      return made != nullptr ? made : OpenMutexW(SYNCHRONIZE, FALSE, native);
    }
    const HANDLE made = CreateMutexW(nullptr, FALSE, native);
    // One that others made may refuse what creation asks for, and be there all the same.
    return made != nullptr ? made : OpenMutexW(kAllMutexAccess, FALSE, native);
  });
  return mutex;
}

NamedMutex NamedMutex::Open(std::u16string_view name) {
  NamedMutex mutex;
  mutex.state_ = State::On(
      name, [](const wchar_t* native) { return OpenMutexW(kAllMutexAccess, FALSE, native); });
  return mutex;
}

NamedEvent NamedEvent::Create(std::u16string_view name, Mode mode, ObjectAccess access) {
  NamedEvent event;
  event.state_ = State::On(name, [mode, access](const wchar_t* native) {
    const bool manual = mode == Mode::kManualReset;
    if (access == ObjectAccess::kEveryone) {
      EveryoneAccess everyone(kAllEventAccess);
      const HANDLE made = CreateEventW(everyone.attributes(), manual, FALSE, native);
      // What another account made for itself can be waited for all the same.
      return made != nullptr ? made : OpenEventW(SYNCHRONIZE, FALSE, native);
    }
    return CreateEventW(nullptr, manual, FALSE, native);
  });
  return event;
}

NamedEvent NamedEvent::Open(std::u16string_view name) {
  NamedEvent event;
  event.state_ = State::On(
      name, [](const wchar_t* native) { return OpenEventW(kAllEventAccess, FALSE, native); });
  return event;
}

bool NamedEvent::Set() { return valid() && SetEvent(state_->handle.get()) != FALSE; }
bool NamedEvent::Reset() { return valid() && ResetEvent(state_->handle.get()) != FALSE; }
bool NamedEvent::Pulse() { return valid() && PulseEvent(state_->handle.get()) != FALSE; }

NamedEvent::WaitResult NamedEvent::WaitAny(std::span<NamedEvent* const> events,
                                           const Waitable* interrupt, WaitLimit limit) {
  using Status = WaitResult::Status;
  std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles{};
  std::array<std::size_t, MAXIMUM_WAIT_OBJECTS> indices{};
  std::size_t count = 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (events[i] == nullptr || !events[i]->valid()) continue;
    if (count == handles.size()) return {};
    handles[count] = events[i]->state_->handle.get();
    indices[count++] = i;
  }
  // Of several that are signalled the first is told, so the events come before.
  const std::size_t eventCount = count;
  if (interrupt != nullptr) {
    if (const HANDLE handle = NativeHandle(*interrupt); handle == nullptr) {
      limit = LimitToPoll(limit);
    } else if (count == handles.size()) {
      return {};
    } else {
      handles[count++] = handle;
    }
  }
  std::size_t signalled = 0;
  switch (WaitForHandles(std::span(handles).first(count), limit, &signalled)) {
    case WaitStatus::kTimeout:
      return {Status::kTimeout};
    case WaitStatus::kFailed:
      return {};
    case WaitStatus::kSignalled:
      break;
  }
  if (signalled == eventCount) return {Status::kInterrupted};
  return {Status::kEvent, indices[signalled]};
}

}  // namespace talvorn::platform
