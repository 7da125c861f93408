#include "platform/posix/forms/event_message.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace talvorn::platform {
namespace {

int PriorityOf(EventKind kind) {
  switch (kind) {
    case EventKind::kError:
      return LOG_ERR;
    case EventKind::kWarning:
      return LOG_WARNING;
    case EventKind::kInformation:
      break;
  }
  return LOG_INFO;
}

// NAME=value, or where the value has line breaks: NAME, the value's length in 8
// little-endian bytes, the value.
void AppendField(std::string& entry, std::string_view name, std::string_view value) {
  entry += name;
  if (value.find('\n') == std::string_view::npos) {
    entry += '=';
  } else {
    entry += '\n';
    for (unsigned int shift = 0; shift < 64; shift += 8) {
      entry += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xFF);
    }
  }
  entry += value;
  entry += '\n';
}

bool IsBlankOrControl(char c) { return (c >= 0 && c <= ' ') || c == 0x7F; }

std::string OneLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  bool blank = false;
  bool lineBreak = false;
  for (const char c : text) {
    if (IsBlankOrControl(c)) {
      blank = true;
      lineBreak |= c == '\n';
      continue;
    }
    if (!line.empty() && blank) line += lineBreak ? "; " : " ";
    blank = false;
    lineBreak = false;
    line += c;
  }
  return line;
}

}  // namespace

std::string JournalEntry(const EventMessage& message) {
  std::string entry;
  entry.reserve(message.text.size() + 192);
  AppendField(entry, "MESSAGE", message.text);
  AppendField(entry, "PRIORITY", std::to_string(PriorityOf(message.kind)));
  AppendField(entry, "SYSLOG_IDENTIFIER", message.source);
  AppendField(entry, "TALVORN_EVENT_ID", std::to_string(message.eventId));
  AppendField(entry, "TALVORN_CATEGORY", std::to_string(message.category));
  if (!message.user.empty()) AppendField(entry, "TALVORN_USER", message.user);
  return entry;
}

std::string SyslogLine(const EventMessage& message, const std::tm& localTime, int processId) {
  constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  // A tag ends at the first blank.
  std::string tag(message.source);
  std::replace_if(tag.begin(), tag.end(), IsBlankOrControl, '_');

  std::array<char, 64> time{};
  std::snprintf(time.data(), time.size(), "<%d>%s %2d %02d:%02d:%02d ",
                LOG_DAEMON | PriorityOf(message.kind),
                kMonths[static_cast<std::size_t>(localTime.tm_mon)], localTime.tm_mday,
                localTime.tm_hour, localTime.tm_min, localTime.tm_sec);
  return time.data() + tag + '[' + std::to_string(processId) + "]: " + OneLine(message.text);
}

}  // namespace talvorn::platform
