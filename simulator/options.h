// The command line of the simulator.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "command_line/completion.h"
#include "simulator/device_model.h"
#include "simulator/status_reply.h"

namespace talvorn {

struct SimulatorOptions {
  bool help = false;
  bool version = false;
  std::optional<Shell> completion;  // prints the script for it, and does nothing else
  bool verbose = false;
  std::string interfaceName;
  bool ipv4 = true;
  bool ipv6 = true;
  bool familyGiven = false;  // the families were asked for by name
  ModelOptions model;
  std::uint32_t announceMs = 0;  // 0: only on request
  std::uint32_t delayMinMs = 0;
  std::uint32_t delayMaxMs = 0;
  std::uint32_t lossPerMille = 0;
  std::uint32_t sendRequestMs = 0;  // 0: never
  std::string sendFile;
  bool fileToRequestGroup = false;
  std::optional<std::uint32_t> endAfterMs;
  bool multicast = true;
  bool statusQuery = false;  // serve it over TCP
  StatusFault statusFault = StatusFault::kNone;
};

// Fills `options`. Returns what is wrong with the arguments, as a text without full
// stop.
[[nodiscard]] std::optional<std::string> ParseSimulatorOptions(
    std::span<const std::string> arguments, SimulatorOptions& options);

[[nodiscard]] std::string SimulatorHelp();
[[nodiscard]] std::string SimulatorCompletion(Shell shell);

}  // namespace talvorn
