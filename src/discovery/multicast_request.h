// The request thread of one interface: sends discovery requests at an interval and
// stays quiet while another locator on the same network asks.
#pragma once

#include <cstdint>
#include <mutex>

#include "discovery/thread_item.h"
#include "support/event_source.h"
#include "support/file_time.h"

namespace talvorn {

// Held while receivers are opened, so that one interface at a time sets them up.
extern std::mutex MulticastSetupLock;

// Thread procedure; `item` is owned by the thread list and only read here.
std::uint32_t ThreadMulticastRequest(const ThreadItem& item);
// The same by the time of `clock`.
std::uint32_t ThreadMulticastRequest(const ThreadItem& item, Clock& clock);

// Reports one sent request to the event log and the trace.
void ReportRequestSent(std::uint32_t ipVersion, std::uint32_t id, const EventSource& source);

}  // namespace talvorn
