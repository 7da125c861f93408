// The Windows event log. Its service takes a report over a local call and stores it
// by itself; a report that it refuses is lost.
#include "platform/event_log.h"

#include <string>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/event_text.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

struct EventSourcePolicy {
  using Native = HANDLE;
  static Native None() { return nullptr; }
  static void Close(Native source) { DeregisterEventSource(source); }
};
using EventSourceHandle = Handle<EventSourcePolicy>;

// The calling thread's access token, or the process's when the thread has none.
KernelHandle OpenToken() {
  KernelHandle token;
  if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Receive()) != FALSE) {
    return token;
  }
  if (GetLastError() != ERROR_NO_TOKEN ||
      OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive()) == FALSE) {
    return {};
  }
  return token;
}

}  // namespace

std::optional<UserIdentity> CurrentUserIdentity() {
  const KernelHandle token = OpenToken();
  if (!token.valid()) return std::nullopt;
  DWORD size = 0;
  if (GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size) != FALSE ||
      GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
    return std::nullopt;
  }
  // Memory from the heap is aligned for anything.
  std::vector<std::byte> buffer(size);
  if (size < sizeof(TOKEN_USER) ||
      GetTokenInformation(token.get(), TokenUser, buffer.data(), size, &size) == FALSE) {
    return std::nullopt;
  }
  const PSID sid = reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid;
  UserIdentity identity;
  identity.bytes.resize(GetLengthSid(sid));
  if (CopySid(static_cast<DWORD>(identity.bytes.size()), identity.bytes.data(), sid) == FALSE) {
    return std::nullopt;
  }
  return identity;
}

struct EventLog::State {
  EventSourceHandle source;
};

EventLog::EventLog() = default;
EventLog::~EventLog() = default;
EventLog::EventLog(EventLog&& other) noexcept = default;
EventLog& EventLog::operator=(EventLog&& other) noexcept = default;

EventLog EventLog::Register(std::u16string_view sourceName) {
  EventLog log;
  if (FaultHits(Fault::kEventLogRegister)) return log;
  auto state = std::make_unique<State>();
  state->source =
      EventSourceHandle(RegisterEventSourceW(nullptr, ToNative(std::u16string(sourceName))));
  if (state->source.valid()) log.state_ = std::move(state);
  return log;
}

void EventLog::Report(EventKind kind, std::uint16_t category, std::uint32_t eventId,
                      const UserIdentity* user, std::u16string_view text) const {
  if (state_ == nullptr) return;
  const std::u16string shown = EventText(text);
  const wchar_t* strings[] = {ToNative(shown)};
  const PSID sid = user != nullptr && !user->bytes.empty()
                       ? const_cast<std::byte*>(user->bytes.data())  // only read
                       : nullptr;
  (void)ReportEventW(state_->source.get(), static_cast<WORD>(kind), category, eventId, sid, 1, 0,
                     strings, nullptr);
}

}  // namespace talvorn::platform
