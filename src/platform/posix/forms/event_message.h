// Event-log entries in the forms that the journal and syslog take.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/event_log.h"

namespace talvorn::platform {

// All texts are UTF-8.
struct EventMessage {
  EventKind kind = EventKind::kInformation;
  std::uint16_t category = 0;
  std::uint32_t eventId = 0;
  std::string_view source;
  std::string_view user;  // empty for none
  std::string_view text;
};

// A datagram of the journal's native protocol.
[[nodiscard]] std::string JournalEntry(const EventMessage& message);

// A traditional syslog line, the text in one line: line breaks become "; ", other
// runs of controls and blanks one blank.
[[nodiscard]] std::string SyslogLine(const EventMessage& message, const std::tm& localTime,
                                     int processId);

}  // namespace talvorn::platform
