// The process: its entry, what it is asked from outside, and its surroundings. Before the entry
// the platform's main opens the standard descriptors and the runtime directory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/waitable.h"

namespace talvorn {

// Defined by the locator. `commandLine`: everything behind the executable's name, without
// leading blanks. Returns the exit code.
int LocatorMain(std::u16string_view commandLine);

// Defined by each tool. `arguments` are UTF-8, without the program's name. Returns the
// exit code.
int ToolMain(const std::vector<std::string>& arguments);

namespace platform {

[[nodiscard]] std::uint32_t CurrentProcessId();

// Tells the service manager that clients are served from now on, if it has asked to be told
// (systemd, Type=notify). Any thread may call it.
void ReportReady();

// Signalled, and never reset, once the locator has been asked to end (SIGTERM, SIGINT).
// Never signalled on Windows, where a process is ended from outside.
[[nodiscard]] const Waitable& TerminationRequest();
[[nodiscard]] bool TerminationRequested();

// Signalled, and never reset, once the user has asked a tool to end (Ctrl-C, SIGTERM). A tool that
// never calls this is ended by the system. To be called before the first thread starts.
[[nodiscard]] const Waitable& InterruptRequest();

// The user's directory for temporary files, with its trailing separator, in the narrow
// code page; none when the system cannot tell or it would take `capacity` bytes or more.
[[nodiscard]] std::optional<std::string> TemporaryDirectory(std::size_t capacity);

// The separator that completes `path`: a backslash; on Linux a slash for a path
// that begins with one.
[[nodiscard]] char PathSeparatorFor(std::string_view path);

// The environment variable that says where clients meet the locator; empty on Windows,
// where they always do.
[[nodiscard]] std::string_view MeetingPlaceVariable();

// Why this account cannot meet a locator there, in one sentence without a full stop; empty when
// it can, or when there is no such place yet.
[[nodiscard]] std::string MeetingPlaceObstacle();

}  // namespace platform
}  // namespace talvorn
