// Reports to the system's event log. Each reporting thread opens the sources it
// needs for itself and closes them when it ends; a report never fails visibly, also
// not for want of memory.
#pragma once

#include <optional>
#include <string_view>

#include "platform/event_log.h"

namespace talvorn {

using platform::EventKind;

inline constexpr std::u16string_view kSourceTalvorn = u"TALVORN";
inline constexpr std::u16string_view kSourceCastRequest = u"CAST REQUEST";
inline constexpr std::u16string_view kSourceCastReceive = u"CAST RECEIVE";
inline constexpr std::u16string_view kSourceCastResponse = u"CAST RESPONSE";

struct EventSource {
  std::optional<platform::UserIdentity> userSid;  // account the reports carry, if known
  platform::EventLog handle;                      // not registered when closed
};

// False when the source could not be registered; a user identity that cannot be had
// is no failure.
bool OpenEventSource(EventSource& source, std::u16string_view name);

// One entry: category 0, event id 1000, `text` as its one string. Lost when the
// source is not open.
void Report(const EventSource& source, EventKind kind, std::u16string_view text);

void CloseEventSource(EventSource& source);

}  // namespace talvorn
