// The Windows event log. A report that its service refuses is lost.
#include "platform/event_log.h"

#include <string>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/event_text.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// The thread's access token; without one, the process's.
KernelHandle OpenToken() {
  KernelHandle token;
  if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Receive()) == FALSE &&
      GetLastError() == ERROR_NO_TOKEN) {
    (void)OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive());
  }
  return token;
}

}  // namespace

std::optional<UserIdentity> CurrentUserIdentity() {
  const KernelHandle token = OpenToken();
  if (!token.valid()) return std::nullopt;
  DWORD size = 0;
  (void)GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);  // asks for the size
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
  Handle<HANDLE, DeregisterEventSource> source;
};

EventLog EventLog::Register(std::u16string_view sourceName) {
  EventLog log;
  if (FaultHits(Fault::kEventLogRegister)) return log;
  auto state = std::make_shared<State>();
  *state->source.Receive() = RegisterEventSourceW(nullptr, ToNative(std::u16string(sourceName)));
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
