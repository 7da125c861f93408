// Mutexes and events of the system. A name without "Global\" is one of the session.
#include "platform/named_object.h"

#include <array>
#include <cstddef>
#include <new>
#include <string>

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

// `make` gives a handle for the terminated name; a state on it when it is one.
template <typename State, typename Make>
std::unique_ptr<State> StateOn(std::u16string_view name, Make make) {
  if (FaultHits(Fault::kNamedObjectOpen)) return nullptr;
  try {
    auto state = std::make_unique<State>();
    state->handle = KernelHandle(make(ToNative(std::u16string(name))));
    return state->handle.valid() ? std::move(state) : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

struct NamedMutex::State {
  KernelHandle handle;
};

NamedMutex::NamedMutex() = default;
NamedMutex::~NamedMutex() = default;
NamedMutex::NamedMutex(NamedMutex&& other) noexcept = default;
NamedMutex& NamedMutex::operator=(NamedMutex&& other) noexcept = default;
void NamedMutex::Close() { state_.reset(); }

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess access) {
  NamedMutex mutex;
  mutex.state_ = StateOn<State>(name, [access](const wchar_t* native) {
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
  mutex.state_ = StateOn<State>(
      name, [](const wchar_t* native) { return OpenMutexW(kAllMutexAccess, FALSE, native); });
  return mutex;
}

struct NamedEvent::State {
  KernelHandle handle;
};

NamedEvent::NamedEvent() = default;
NamedEvent::~NamedEvent() = default;
NamedEvent::NamedEvent(NamedEvent&& other) noexcept = default;
NamedEvent& NamedEvent::operator=(NamedEvent&& other) noexcept = default;
void NamedEvent::Close() { state_.reset(); }

NamedEvent NamedEvent::Create(std::u16string_view name, Mode mode, ObjectAccess access) {
  NamedEvent event;
  event.state_ = StateOn<State>(name, [mode, access](const wchar_t* native) {
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
  event.state_ = StateOn<State>(
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
