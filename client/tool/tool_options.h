// The command line of the tool.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "command_line/completion.h"

namespace talvorn {

enum class ToolCommand {
  kHelp,
  kToolVersion,
  kDevices,
  kItems,
  kVersion,
  kWatch,
  kDoctor,
  kStatus,
  kSettings,
  kBugReport,
  kLogStart,
  kLogStop,
  kLogPath,
  kHold,
  kReinit,
  kMetrics,
  kCompletion,
};

struct ToolOptions {
  ToolCommand command = ToolCommand::kHelp;
  std::string help;  // kHelp: the text
  bool json = false;
  std::string pattern;                     // kDevices, kItems: of the rows; empty: all
  std::string sortBy;                      // kDevices, kItems: a heading; empty: as they come
  std::vector<std::string> columns;        // kDevices, kItems: headings; empty: all
  bool all = false;                        // kWatch: what is there already counts as a change
  std::optional<std::uint32_t> watchMs;    // kDevices, kItems: shown again at this interval
  std::uint32_t intervalMs = 1'000;        // kWatch: between two readings
  std::optional<std::uint32_t> timeoutMs;  // the command's own default when not given
  std::optional<std::uint32_t> holdMs;     // kHold: for ever when not given
  std::string directory;                   // kLogPath: empty asks
  bool resetDirectory = false;             // kLogPath
  std::string subject;                     // kDoctor: address or serial; empty: all devices
  std::string address;                     // kReinit
  std::string outputFile;      // kMetrics: empty is standard output; kBugReport: a new one
  std::uint32_t listenMs = 0;  // kStatus: how long to listen to the network
  bool anonymous = false;      // kBugReport: without names
  std::string shell;           // kCompletion: its name
};

struct ToolMistake {
  std::string sentence;  // what is wrong, without full stop
  std::string helpWith;  // "talvorn devices --help"
};

// Fills `options`, or says what is wrong with the arguments.
[[nodiscard]] std::optional<ToolMistake> ParseToolOptions(std::span<const std::string> arguments,
                                                          ToolOptions& options);

// The script that completes this command line.
[[nodiscard]] std::string ToolCompletion(Shell shell);

}  // namespace talvorn
