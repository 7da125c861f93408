// What every process of ours does first, before any thread exists.
#pragma once

namespace talvorn::platform {

// Opens those of descriptors 0 to 2 that are missing, so that nothing else lands on them; using
// one of these fails. Ignores SIGPIPE, raises the limit of open files, sizes the threads' stacks.
// False when /dev/null cannot be opened.
[[nodiscard]] bool PrepareProcess();

// From now on SIGTERM, SIGINT and (unless ignored, as by nohup) SIGHUP show in
// TerminationRequest() instead of ending the process. Before any thread starts, since threads
// inherit it. False when no descriptor is left.
bool WatchTerminationSignals();

}  // namespace talvorn::platform
