// What every process of ours does first, before any thread exists.
#pragma once

namespace talvorn::platform {

// Makes sure that descriptors 0 to 2 are taken, so that nothing else ever lands on
// them; reading or writing one that was missing fails. Ignores SIGPIPE, raises the
// limit of open descriptors as far as it may, and gives threads stacks of a sensible size. False
// when the first of these cannot be had.
[[nodiscard]] bool PrepareProcess();

// From now on the signals that ask a process to end (SIGTERM, SIGINT, and SIGHUP
// unless it is ignored, as by nohup) are no longer delivered but show in
// TerminationRequest(). Threads inherit this, so it is called before any starts.
// False when the system has no descriptor for it; the signals then end the process.
bool WatchTerminationSignals();

}  // namespace talvorn::platform
