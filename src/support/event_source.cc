#include "support/event_source.h"

#include "support/completed.h"

namespace talvorn {
namespace {

constexpr std::uint16_t kCategory = 0;
constexpr std::uint32_t kEventId = 1'000;

}  // namespace

bool OpenEventSource(EventSource& source, std::u16string_view name) {
  (void)Completed([&] {
    source.handle = platform::EventLog::Register(name);
    if (source.handle.valid()) source.userSid = platform::CurrentUserIdentity();
  });
  return source.handle.valid();
}

void Report(const EventSource& source, EventKind kind, std::u16string_view text) {
  if (!source.handle.valid()) return;
  (void)Completed([&] {
    source.handle.Report(kind, kCategory, kEventId, source.userSid ? &*source.userSid : nullptr,
                         text);
  });
}

void CloseEventSource(EventSource& source) {
  source.handle = platform::EventLog();
  source.userSid.reset();
}

}  // namespace talvorn
