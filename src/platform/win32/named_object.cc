// Mutexes and events of Windows. A name without "Global\" belongs to the session.
#include "platform/named_object.h"

#include <array>
#include <cstddef>
#include <string>

#include "platform/fault_injection.h"
#include "platform/win32/everyone_access.h"
#include "platform/win32/handle.h"
#include "platform/win32/wait.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// All access, which locator and clients ask for.
constexpr DWORD kAllMutexAccess = 0x1F0001;
constexpr DWORD kAllEventAccess = 0x1F0003;

}  // namespace

struct NamedObject::State {
  KernelHandle handle;

  // `make` opens a handle for a null-terminated name.
  template <typename Make>
  static std::shared_ptr<State> Of(std::u16string_view name, Make make) {
    if (FaultHits(Fault::kNamedObjectOpen)) return nullptr;
    auto state = std::make_shared<State>();
    state->handle = KernelHandle(make(ToNative(std::u16string(name))));
    return state->handle.valid() ? state : nullptr;
  }
};

bool NamedObject::IsInPlace() const { return valid(); }

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess access) {
  return NamedMutex(State::Of(name, [access](const wchar_t* native) {
    if (access == ObjectAccess::kEveryone) {
      EveryoneAccess everyone(kAllMutexAccess);
      const HANDLE made = CreateMutexW(everyone.attributes(), FALSE, native);
      // Another account's mutex may allow only this; open here, it stays in existence.
      return made != nullptr ? made : OpenMutexW(SYNCHRONIZE, FALSE, native);
    }
    const HANDLE made = CreateMutexW(nullptr, FALSE, native);
    // An existing mutex may refuse what creation asks for.
    return made != nullptr ? made : OpenMutexW(kAllMutexAccess, FALSE, native);
  }));
}

NamedMutex NamedMutex::Open(std::u16string_view name) {
  return NamedMutex(State::Of(
      name, [](const wchar_t* native) { return OpenMutexW(kAllMutexAccess, FALSE, native); }));
}

NamedEvent NamedEvent::Create(std::u16string_view name, ObjectAccess access) {
  return NamedEvent(State::Of(name, [access](const wchar_t* native) {
    if (access == ObjectAccess::kEveryone) {
      EveryoneAccess everyone(kAllEventAccess);
      const HANDLE made = CreateEventW(everyone.attributes(), TRUE, FALSE, native);
      // Another account's event may allow only a wait.
      return made != nullptr ? made : OpenEventW(SYNCHRONIZE, FALSE, native);
    }
    return CreateEventW(nullptr, TRUE, FALSE, native);
  }));
}

NamedEvent NamedEvent::Open(std::u16string_view name) {
  return NamedEvent(State::Of(
      name, [](const wchar_t* native) { return OpenEventW(kAllEventAccess, FALSE, native); }));
}

bool NamedEvent::Set() { return valid() && SetEvent(state_->handle.get()) != FALSE; }
bool NamedEvent::Reset() { return valid() && ResetEvent(state_->handle.get()) != FALSE; }
bool NamedEvent::Pulse() { return valid() && PulseEvent(state_->handle.get()) != FALSE; }

NamedEvent::WaitResult NamedEvent::WaitAny(std::span<NamedEvent* const> events,
                                           const Waitable* interrupt, WaitLimit limit) {
  using Status = WaitResult::Status;
  std::array<std::size_t, MAXIMUM_WAIT_OBJECTS> indices{};
  std::size_t count = 0;
  WaitList waits;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (events[i] == nullptr || !events[i]->valid()) continue;
    if (count == indices.size()) return {};
    indices[count++] = i;
    waits.Add(events[i]->state_->handle.get());
  }
  // Last: if several are signalled, the wait tells the first.
  if (interrupt != nullptr) waits.Add(*interrupt);
  DWORD signalled = 0;
  const WaitStatus status = waits.Wait(limit, &signalled);
  if (status == WaitStatus::kFailed) return {};
  if (status == WaitStatus::kTimeout) return {Status::kTimeout};
  if (signalled == count) return {Status::kInterrupted};
  return {Status::kEvent, indices[signalled]};
}

}  // namespace talvorn::platform
