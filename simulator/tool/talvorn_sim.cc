// talvorn-sim: simulated devices on a network interface.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "simulator/hex_lines.h"
#include "simulator/options.h"
#include "simulator/simulator.h"
#include "support/text_format.h"
#include "version.h"

namespace talvorn {
namespace {

using platform::WriteError;
using platform::WriteOutput;

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

int Fail(const std::string& sentence) {
  (void)WriteError(Concat({"talvorn-sim: ", sentence, "\n"}));
  return kFailed;
}

int Print(const std::string& text) {
  return WriteOutput(text) ? kDone : Fail("standard output cannot be written");
}

// With the time since the start, which is what the schedules count.
void LogLine(std::uint64_t startMs, const std::string& line) {
  const std::uint64_t elapsed = platform::MonotonicMs() - startMs;
  std::array<char, 32> time{};
  FormatTextA(time, "%5u.%03u  ", elapsed / 1'000, elapsed % 1'000);
  // Nothing to be done when nobody reads the log.
  (void)WriteOutput(Concat({time.data(), line, "\n"}));
}

std::optional<HexLines> ReadHexFile(const std::string& path) {
  // UTF-8, as the arguments are.
  std::ifstream file(std::filesystem::path(std::u8string(path.begin(), path.end())),
                     std::ios::binary);
  std::ostringstream text;
  if (!file || !(text << file.rdbuf())) return std::nullopt;
  return ParseHexLines(text.str());
}

int Simulate(const SimulatorOptions& options) {
  HexLines file;
  if (!options.sendFile.empty()) {
    const std::string name = Concat({"'", EscapeForTerminal(options.sendFile), "'"});
    const auto read = ReadHexFile(options.sendFile);
    if (!read) return Fail(Concat({"the file ", name, " cannot be read, or is empty"}));
    if (!read->mistake.empty()) return Fail(Concat({name, ": ", read->mistake}));
    file = *read;
  }

  const std::uint64_t start = platform::MonotonicMs();
  Simulator simulator(options, [&options, start](const std::string& line) {
    if (options.verbose) LogLine(start, line);
  });
  const platform::Waitable& interrupt = platform::InterruptRequest();
  if (const auto obstacle = simulator.Open(interrupt)) return Fail(*obstacle);
  if (const int status = Print(Concat({"talvorn-sim: ", simulator.Summary(), "\n"}));
      status != kDone)
    return status;

  simulator.Run(interrupt, file.datagrams);

  const Simulator::Counts& counts = simulator.counts();
  if (options.verbose) {
    LogLine(start, Concat({std::to_string(counts.requestsHeard), " requests heard, ",
                           std::to_string(counts.sent), " datagrams sent, ",
                           std::to_string(counts.statusQueries), " status queries"}));
  }
  if (counts.failed > 0) {
    (void)WriteError(
        Concat({"talvorn-sim: ", std::to_string(counts.failed), " datagrams could not be sent\n"}));
  }
  return kDone;
}

}  // namespace

int ToolMain(const std::vector<std::string>& arguments) {
  SimulatorOptions options;
  if (const auto mistake = ParseSimulatorOptions(arguments, options)) {
    (void)WriteError(Concat({"talvorn-sim: ", *mistake, "\nTry 'talvorn-sim --help'.\n"}));
    return kWrongUsage;
  }
  if (options.help) return Print(SimulatorHelp());
  if (options.completion) return Print(SimulatorCompletion(*options.completion));
  if (options.version) return Print(Concat({"talvorn-sim ", kVersion, "\n"}));
  if (!platform::StartSocketLibrary()) return Fail("the system has no network to offer");
  const int status = Simulate(options);
  platform::StopSocketLibrary();
  return status;
}

}  // namespace talvorn
