// The locator's threads.
#pragma once

#include "platform/thread.h"

namespace talvorn {

// Starts `procedure` in a thread of its own; none when that fails, also for want of
// memory. What the procedure lets through ends its thread and no other, and the trace
// says so.
[[nodiscard]] platform::Thread StartThread(const char* name, platform::Thread::Procedure procedure);

}  // namespace talvorn
