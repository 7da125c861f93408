// The locator's main on Linux.
#include <algorithm>
#include <new>
#include <string>
#include <string_view>

#include "platform/console.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/process_start.h"
#include "platform/posix/standard_error.h"
#include "platform/process.h"
#include "platform/text_encoding.h"
#include "version.h"

namespace talvorn::platform {
namespace {

constexpr std::string_view kHelp =
    R"(Usage: talvorn-locator [/dynamic]

Finds the TALVORN devices on the networks of this machine and keeps the list of
them for the programs that run here. It stays in the foreground until SIGTERM or
SIGINT ends it.

  /dynamic    ends by itself as well, some time after the last client program
              has gone (setting "Time Multicast Request Allowed", in milliseconds)
  --help      shows this text
  --version   shows the version

Environment:
  TALVORN_RUNTIME_DIR      directory of what it shares with client programs
                           (default /run/talvorn)
  TALVORN_REGISTRY         file of its settings
                           (default /etc/talvorn/talvorn.reg)
  TALVORN_JOURNAL_SOCKET   socket of the journal that takes its reports
                           (default: the system's own)
)";

int Answer(std::string_view text) {
  if (WriteOutput(text)) return 0;
  (void)WriteError("talvorn-locator: the text could not be written to standard output\n");
  return 1;
}

int GiveUp(std::string_view obstacle) {
  (void)WriteIfRoom(std::string("talvorn-locator: ").append(obstacle).append("\n"));
  return 1;
}

// The arguments as one text, as a process on Windows gets them; one that is empty
// stands there as its quotes.
std::string JoinArguments(int count, char** arguments) {
  std::string line;
  for (int i = 1; i < count; ++i) {
    if (i > 1) line += ' ';
    const std::string_view argument = arguments[i];
    line += argument.empty() ? "\"\"" : argument;
  }
  return line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
}

int Run(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    if (std::string_view(arguments[i]) == "--help") return Answer(kHelp);
    if (std::string_view(arguments[i]) == "--version") {
      return Answer(std::string("talvorn-locator ").append(kVersionText).append("\n"));
    }
  }
  if (!PrepareProcess()) {
    return GiveUp("/dev/null cannot be opened; start it with standard streams, or mend /dev");
  }
  if (!WatchTerminationSignals()) {
    return GiveUp("no file descriptor is left; raise the limit of open files (ulimit -n)");
  }
  std::string obstacle;
  if (!PrepareRuntimeDirectory(obstacle)) return GiveUp(obstacle);
  RemoveStaleMailslots();
  return LocatorMain(Utf8ToWide(JoinArguments(count, arguments)));
}

}  // namespace
}  // namespace talvorn::platform

int main(int argc, char** argv) {
  try {
    return talvorn::platform::Run(argc, argv);
  } catch (const std::bad_alloc&) {
    (void)talvorn::platform::WriteIfRoom("talvorn-locator: out of memory\n");
    return 1;
  }
}
