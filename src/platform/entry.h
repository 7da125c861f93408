// Process entry of the locator. The platform's main calls LocatorMain, which app/
// defines, once the process is ready: standard descriptors open, the runtime
// directory usable, termination signals turned into the termination request.
#pragma once

#include <string_view>

#include "platform/waitable.h"

namespace talvorn {

// `commandLine`: everything behind the executable's name, without leading blanks.
// Returns the exit code.
int LocatorMain(std::u16string_view commandLine);

namespace platform {

// Signalled, and never reset, once the process has been asked to end (SIGTERM,
// SIGINT). Never signalled on Windows, where a process is ended from outside.
[[nodiscard]] const Waitable& TerminationRequest();
[[nodiscard]] bool TerminationRequested();

}  // namespace platform
}  // namespace talvorn
