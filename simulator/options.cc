#include "simulator/options.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>
#include <vector>

#include "command_line/concat.h"
#include "command_line/options.h"
#include "command_line/terminal_text.h"
#include "devices/item_record.h"
#include "platform/socket.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kMaxMs = 86'400'000;  // a day
constexpr std::uint32_t kMaxDevices = 100'000;
constexpr std::uint32_t kMaxItems = 2'000;

// "100" or "100-500".
TakeValue TakeDelay(SimulatorOptions& options) {
  return [&options](std::string_view value) -> std::string {
    const std::size_t dash = value.find('-');
    const auto min = ParseNumber(value.substr(0, dash), 0, kMaxMs);
    const auto max =
        dash == std::string_view::npos ? min : ParseNumber(value.substr(dash + 1), 0, kMaxMs);
    if (!min || !max || *max < *min) return "milliseconds (100) or a range of them (100-500)";
    options.delayMinMs = *min;
    options.delayMaxMs = *max;
    return {};
  };
}

// "20000/60000".
TakeValue TakeAbsence(ModelOptions& model) {
  return [&model](std::string_view value) -> std::string {
    const std::size_t slash = value.find('/');
    if (slash != std::string_view::npos) {
      const auto away = ParseNumber(value.substr(0, slash), 1, kMaxMs);
      const auto every = ParseNumber(value.substr(slash + 1), 1, kMaxMs);
      if (away && every && *away <= *every) {
        model.absentForMs = *away;
        model.absentEveryMs = *every;
        return {};
      }
    }
    return "two times in milliseconds, the first not above the second (20000/60000)";
  };
}

TakeValue TakePercent(std::uint32_t& perMille) {
  return [&perMille](std::string_view value) -> std::string {
    const auto number = ParseDecimal(value, 1, 0, 1'000);
    if (!number) return "a percentage from 0 to 100";
    perMille = *number;
    return {};
  };
}

TakeValue TakeEnd(std::optional<std::uint32_t>& endAfterMs) {
  return [&endAfterMs](std::string_view value) -> std::string {
    std::uint32_t milliseconds = 0;
    std::string wanted = TakeSeconds(milliseconds, 0, kMaxMs)(value);
    if (wanted.empty()) endAfterMs = milliseconds;
    return wanted;
  };
}

struct Switches {
  bool onlyIpv4 = false;
  bool onlyIpv6 = false;
  bool noMulticast = false;
};

std::vector<Option> Options(SimulatorOptions& options, Switches& switches) {
  ModelOptions& model = options.model;
  return {
      {"--interface", "IF", "network interface to appear on (needed)",
       TakeText(options.interfaceName)},
      {"--ipv4", "", "IPv4 only (default: both)", TakeSwitch(switches.onlyIpv4)},
      {"--ipv6", "", "IPv6 only", TakeSwitch(switches.onlyIpv6)},
      {"--devices", "N", "number of devices (default 1)",
       TakeNumber(model.devices, 0, kMaxDevices)},
      {"--first-serial", "N", "serial number of the first one (default 1)",
       TakeNumber(model.firstSerial, 0, kMaxSerial)},
      ChoiceOption<RecordLayout>("--layout", "LAYOUT",
                                 "records: full, short (those of older devices, without\n"
                                 "items) or mixed; full by default",
                                 model.layout,
                                 {{"full", RecordLayout::kFull},
                                  {"short", RecordLayout::kShort},
                                  {"mixed", RecordLayout::kMixed}}),
      {"--items", "N", "items of each device with full records (default 0)",
       TakeNumber(model.items, 0, kMaxItems)},
      {"--item-size", "BYTES", "size of an item's body (default 64)",
       TakeNumber(model.itemSize, kMinItemSize, kMaxAnswerSize)},
      {"--change-items", "MS",
       "so often one item of each device, the next one each\ntime, changes its content",
       TakeNumber(model.changeItemsMs, 1, kMaxMs)},
      {"--toggle-item", "MS",
       "so often the first item of each device is withdrawn, or\nadded again",
       TakeNumber(model.toggleItemMs, 1, kMaxMs)},
      {"--change-status", "MS", "so often each device changes its status",
       TakeNumber(model.changeStatusMs, 1, kMaxMs)},
      {"--absent", "AWAY/PERIOD",
       "each device is away for AWAY of every PERIOD\n"
       "milliseconds, one after the other (20000/60000)",
       TakeAbsence(model)},
      {"--absent-devices", "N", "only the last N devices are ever away (default: all)",
       TakeNumber(model.absentDevices, 0, kMaxDevices)},
      {"--announce", "MS", "answers at this interval also when nobody asks",
       TakeNumber(options.announceMs, 1, kMaxMs)},
      {"--delay", "MS[-MS]", "time from request to answer, fixed or random in a range",
       TakeDelay(options)},
      {"--loss", "PERCENT", "so many answers are never sent", TakePercent(options.lossPerMille)},
      {"--seed", "N",
       "another seed gives other devices, delays and losses; the\n"
       "same one gives the same again (default 1)",
       TakeNumber(model.seed, 0, std::numeric_limits<std::uint32_t>::max())},
      {"--send-request", "MS", "asks at this interval, as another locator does",
       TakeNumber(options.sendRequestMs, 1, kMaxMs)},
      {"--send-file", "FILE",
       "sends each line of the file, hexadecimal bytes, as one\n"
       "datagram at the start; '-' is an empty datagram, and '#'\n"
       "begins a comment",
       TakeText(options.sendFile)},
      ChoiceOption<bool>("--send-to", "GROUP", "where the file goes: request or response (default)",
                         options.fileToRequestGroup, {{"request", true}, {"response", false}}),
      {"--status-query", "",
       "answers the status query of static devices as well, on\n"
       "TCP port 4817 of every IPv4 address",
       TakeSwitch(options.statusQuery)},
      {"--no-multicast", "", "answers nothing else than the status query",
       TakeSwitch(switches.noMulticast)},
      ChoiceOption<StatusFault>("--status-fault", "KIND",
                                "answers the status query wrongly; KIND is one of\n"
                                "silent         accepts the connection and says nothing\n"
                                "pieces         100 bytes every 100 ms\n"
                                "two-frames     another device's reply in the same\n"
                                "               segment, then the connection is closed\n"
                                "long-chain     items of 1501 bytes, one too many\n"
                                "endless-chain  items that never end\n"
                                "early-close    closes in the middle of the reply\n"
                                "other-type     a frame that is no reply\n"
                                "drip           one byte a second",
                                options.statusFault,
                                {{"silent", StatusFault::kSilent},
                                 {"pieces", StatusFault::kPieces},
                                 {"two-frames", StatusFault::kTwoFrames},
                                 {"long-chain", StatusFault::kLongChain},
                                 {"endless-chain", StatusFault::kEndlessChain},
                                 {"early-close", StatusFault::kEarlyClose},
                                 {"other-type", StatusFault::kOtherType},
                                 {"drip", StatusFault::kDrip}}),
      {"--for", "SECONDS", "ends after this time; 0 as soon as the file is sent",
       TakeEnd(options.endAfterMs)},
      {"--verbose", "", "shows what is heard and sent", TakeSwitch(options.verbose)},
      {"--help", "", "shows this text", TakeSwitch(options.help)},
      {"-h", "", "the same", TakeSwitch(options.help)},
      {"--version", "", "shows the version", TakeSwitch(options.version)},
      ChoiceOption<std::optional<Shell>>(
          "--completion", "SHELL",
          "prints a script that completes these options: for bash,\nzsh or powershell",
          options.completion,
          {{"bash", Shell::kBash}, {"zsh", Shell::kZsh}, {"powershell", Shell::kPowerShell}}),
  };
}

std::optional<std::string> Contradiction(const SimulatorOptions& options) {
  const ModelOptions& model = options.model;
  if (options.interfaceName.empty()) return "--interface is missing";
  if (model.devices > 0 && model.devices - 1 > kMaxSerial - model.firstSerial) {
    return Concat({"the serial numbers would go past ", std::to_string(kMaxSerial)});
  }
  if (!options.statusQuery) {
    if (!options.multicast) return "--no-multicast leaves nothing to do without --status-query";
    if (options.statusFault != StatusFault::kNone) return "--status-fault needs --status-query";
  } else if (!options.ipv4) {
    return "--status-query works over IPv4 only";
  }
  if (!options.multicast &&
      (options.announceMs > 0 || options.sendRequestMs > 0 || !options.sendFile.empty())) {
    return "--announce, --send-request and --send-file need multicast";
  }
  const std::uint64_t answer =
      kDeviceRecordSize +
      std::uint64_t{model.items} * (std::uint64_t{kItemHeaderSize} + model.itemSize);
  if (model.items > 0 && answer > kMaxAnswerSize) {
    return Concat({"an answer would have ", std::to_string(answer), " bytes; a datagram takes ",
                   std::to_string(kMaxAnswerSize)});
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ParseSimulatorOptions(std::span<const std::string> arguments,
                                                 SimulatorOptions& options) {
  Switches switches;
  std::vector<std::string> operands;
  const std::vector<Option> table = Options(options, switches);
  if (auto mistake = ParseOptions(arguments, table, operands)) return mistake;
  if (options.help || options.version || options.completion) return std::nullopt;
  if (!operands.empty())
    return Concat({"'", EscapeForTerminal(operands.front()), "' belongs to no option"});
  if (switches.onlyIpv4 != switches.onlyIpv6) {
    options.ipv4 = switches.onlyIpv4;
    options.ipv6 = switches.onlyIpv6;
  }
  options.familyGiven = switches.onlyIpv4 || switches.onlyIpv6;
  options.multicast = !switches.noMulticast;
  auto contradiction = Contradiction(options);
  if (!options.multicast) options.ipv6 = false;  // the status query knows none
  return contradiction;
}

std::string SimulatorHelp() {
  SimulatorOptions options;
  Switches unused;
  return Concat(
      {"Usage: talvorn-sim --interface IF [OPTIONS]\n"
       "\n"
       "Simulated TALVORN devices on a network interface. They answer the discovery\n"
       "requests of locators until Ctrl-C ends them. Device 1 answers from the first\n"
       "address of the interface, device 2 from the second one, and so on.\n"
       "\n",
       OptionsHelp(Options(options, unused)),
       "\n"
       "A locator reads the first ",
       std::to_string(platform::Datagrams::kLargest),
       " bytes of an answer, and takes\n"
       "no longer status reply.\n"
       "\n"
       "Example: twelve devices, of which four come and go, with items that change:\n"
       "  talvorn-sim --interface demo0 --devices 12 --items 2 --change-items 5000 \\\n"
       "      --absent 20000/60000 --absent-devices 4\n"
       "Three devices that only a status query reaches:\n"
       "  talvorn-sim --interface demo0 --devices 3 --status-query --no-multicast\n"});
}

std::string SimulatorCompletion(Shell shell) {
  SimulatorOptions options;
  Switches unused;
  const CompletedCommand only[] = {{{}, {}, {}, Options(options, unused)}};
  return CompletionScript(shell, "talvorn-sim", only);
}

}  // namespace talvorn
