#include "client/tool/tool_options.h"

#include <algorithm>
#include <array>
#include <functional>
#include <string_view>
#include <vector>

#include "client/tool/arrangement.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "command_line/options.h"
#include "command_line/terminal_text.h"
#include "platform/ascii_case.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kMinIntervalMs = 100;
constexpr std::uint32_t kDefaultWatchMs = 1'000;
constexpr std::uint32_t kMaxMs = 86'400'000;  // a day

std::string_view ExitStatusHelp(ToolCommand command) {
  switch (command) {
    case ToolCommand::kDoctor:
      return "\nExit status: 0 nothing has failed, 1 something has, or the output cannot be\n"
             "written, 2 wrong usage.\n";
    case ToolCommand::kSettings:
    case ToolCommand::kBugReport:
    case ToolCommand::kMetrics:
    case ToolCommand::kCompletion:
      return "\nExit status: 0 done, 1 the output cannot be written, 2 wrong usage.\n";
    default:
      return "\nExit status: 0 done, 1 the locator does not answer or the output cannot be\n"
             "written, 2 wrong usage.\n";
  }
}

TakeValue TakeOptionalSeconds(std::optional<std::uint32_t>& targetMs, std::uint32_t minMs,
                              std::optional<std::uint32_t> missingMs = {}) {
  return [&targetMs, minMs, missingMs](std::string_view value) -> std::string {
    std::uint32_t milliseconds = 0;
    if (value.empty() && missingMs) {
      targetMs = missingMs;
      return {};
    }
    std::string wanted = TakeSeconds(milliseconds, minMs, kMaxMs)(value);
    if (wanted.empty()) targetMs = milliseconds;
    return wanted;
  };
}

TakeValue TakeFileName(std::string& target) {
  return [&target](std::string_view value) -> std::string {
    target = value;
    return value.empty() ? "the name of a file" : "";
  };
}

Option JsonOption(ToolOptions& options, std::string_view help) {
  return {"--json", "", help, TakeSwitch(options.json)};
}

Option TimeoutOption(ToolOptions& options) {
  return {"--timeout", "SECONDS", "how long to wait for the locator (default 3)",
          TakeOptionalSeconds(options.timeoutMs, kMinIntervalMs)};
}

// "serial, alias": as users write the columns.
std::vector<std::string> NamesOf(std::span<const std::string_view> columns) {
  std::vector<std::string> names;
  for (const std::string_view column : columns) {
    std::string& name = names.emplace_back(column);
    std::ranges::transform(name, name.begin(), platform::ToAsciiLower<char>);
  }
  return names;
}

std::string Listed(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list.append(list.empty() ? "" : ", ").append(name);
  return list;
}

TakeValue TakeColumns(std::vector<std::string>& target, std::vector<std::string> names) {
  return [&target, names = std::move(names)](std::string_view value) -> std::string {
    target.clear();
    while (!value.empty()) {
      const std::string_view name = value.substr(0, value.find(','));
      if (ColumnOf(names, name) == names.size()) return Concat({"some of ", Listed(names)});
      target.emplace_back(name);
      value.remove_prefix(std::min(name.size() + 1, value.size()));
    }
    return target.empty() ? Concat({"some of ", Listed(names)}) : std::string();
  };
}

Option SortOption(ToolOptions& options, std::vector<std::string> names) {
  std::vector<std::pair<std::string, std::string>> choices;
  for (std::string& name : names) choices.emplace_back(name, name);
  return ChoiceOption("--sort", "COLUMN", "in the order of this column", options.sortBy,
                      std::move(choices));
}

std::vector<Option> ListOptions(ToolOptions& options, std::span<const std::string_view> columns) {
  const std::vector<std::string> names = NamesOf(columns);
  return {SortOption(options, names),
          {"--columns", "LIST", "only these columns, with commas between them",
           TakeColumns(options.columns, names)},
          {"--watch", "[SECONDS]", "shows them again and again until Ctrl-C (default 1)",
           TakeOptionalSeconds(options.watchMs, kMinIntervalMs, kDefaultWatchMs)},
          JsonOption(options, "one JSON document on one line, for programs"),
          TimeoutOption(options)};
}

std::vector<Option> DeviceListOptions(ToolOptions& options) {
  return ListOptions(options, kDeviceColumns);
}

std::vector<Option> ItemListOptions(ToolOptions& options) {
  return ListOptions(options, kItemColumns);
}

std::vector<Option> AnswerOptions(ToolOptions& options) {
  return {JsonOption(options, "a JSON document, for programs"), TimeoutOption(options)};
}

Option ListenOption(ToolOptions& options) {
  return {"--listen", "SECONDS",
          "listens to the network so long, for other locators and for\ndevices (default 0)",
          TakeSeconds(options.listenMs, 0, kMaxMs)};
}

std::vector<Option> StatusOptions(ToolOptions& options) {
  return {ListenOption(options), JsonOption(options, "a JSON document, for programs"),
          TimeoutOption(options)};
}

std::vector<Option> SettingsOptions(ToolOptions& options) {
  return {JsonOption(options, "a JSON document, for programs")};
}

std::vector<Option> BugReportOptions(ToolOptions& options) {
  return {{"--anonymous", "",
           "without the names of devices, hosts and accounts, without what\n"
           "items hold, and without the locator's reports",
           TakeSwitch(options.anonymous)},
          TimeoutOption(options)};
}

std::vector<Option> WatchOptions(ToolOptions& options) {
  return {{"--all", "", "begins with everything that is there already", TakeSwitch(options.all)},
          {"--interval", "SECONDS",
           "how often to look at the devices (default 1); items are\n"
           "looked at as well when the locator signals a change",
           TakeSeconds(options.intervalMs, kMinIntervalMs, kMaxMs)},
          JsonOption(options, "one JSON document for each change, for programs"),
          TimeoutOption(options)};
}

std::vector<Option> LogPathOptions(ToolOptions& options) {
  return {{"--reset", "", "back to the temporary directory", TakeSwitch(options.resetDirectory)},
          JsonOption(options, "a JSON document, for programs"),
          TimeoutOption(options)};
}

std::vector<Option> HoldOptions(ToolOptions& options) {
  return {{"--for", "SECONDS", "ends after this time (default: with Ctrl-C)",
           TakeOptionalSeconds(options.holdMs, 0)}};
}

std::vector<Option> ReinitOptions(ToolOptions& options) {
  return {{"--timeout", "SECONDS",
           "how long to wait until the locator has done it\n(default 10); 0 does not wait",
           TakeOptionalSeconds(options.timeoutMs, 0)}};
}

std::vector<Option> MetricsOptions(ToolOptions& options) {
  return {{"--output", "FILE",
           "writes to this file, which is replaced as a whole, for a\ntextfile collector",
           TakeFileName(options.outputFile)},
          ListenOption(options),
          TimeoutOption(options)};
}

std::vector<Option> NoOptions(ToolOptions&) { return {}; }

struct CommandEntry {
  std::string_view name;     // one or two words
  std::string_view operand;  // as the usage shows it
  ToolCommand command;
  std::string_view summary;
  std::string_view description;
  std::vector<Option> (*optionsOf)(ToolOptions&);
  std::string ToolOptions::*operandField;  // null: takes none
};

constexpr auto kCommands = std::to_array<CommandEntry>({
    {"devices", "[PATTERN]", ToolCommand::kDevices, "the devices that the locator has found",
     "Shows the devices that the locator has found: serial number, alias, status, clip,\n"
     "address and the host's alias; with PATTERN those that hold it in one of these, or, with\n"
     "* and ? in it, those of which one is like it. A narrow terminal does without some columns.\n"
     "With --watch on a terminal, '+' marks a device that has just appeared, '*' one that has\n"
     "changed and '-' one that has gone; arrows and Page Up and Down move, / filters, q ends.\n",
     DeviceListOptions, &ToolOptions::pattern},
    {"items", "[PATTERN]", ToolCommand::kItems, "the items that devices have attached",
     "Shows the items that devices have attached to their answers: the device's serial\n"
     "number, the beginning of the digest that identifies the item, the header bytes that\n"
     "belong to the device, the size in bytes and what the item holds. PATTERN and the keys of\n"
     "--watch are those of 'devices'.\n",
     ItemListOptions, &ToolOptions::pattern},
    {"watch", "", ToolCommand::kWatch, "a line for every change of devices and items",
     "Prints a line whenever a device appears, changes or goes, or an item is new, changes\n"
     "or goes, until Ctrl-C. Waits for the locator when there is none.\n",
     WatchOptions, nullptr},
    {"doctor", "[DEVICE]", ToolCommand::kDoctor, "why a device is not seen, and what to do",
     "Examines what stands between the devices and this machine's programs: the locator, the\n"
     "interfaces, what is heard on the network for one request period. Sends nothing to the\n"
     "network. DEVICE, an address or a serial number: the way of that one device as well.\n",
     AnswerOptions, &ToolOptions::subject},
    {"status", "", ToolCommand::kStatus, "the locator and its interfaces at a glance",
     "Shows the locator with its lifetime, how many devices and items it has, the interfaces that\n"
     "it uses or does not, dropped datagrams, its last request and the last answer. Sends nothing\n"
     "to the network; --listen adds who asks there and how many devices answer.\n",
     StatusOptions, nullptr},
    {"settings", "", ToolCommand::kSettings, "the settings in force, and where they come from",
     "Shows every setting with its value and where that comes from: \"stored\", or \"default\" "
     "when\n"
     "nothing is stored or what is stored has a wrong type. A locator that runs has read most of\n"
     "them at its start.\n",
     SettingsOptions, nullptr},
    {"bugreport", "[FILE]", ToolCommand::kBugReport, "one text file with all that helps to help",
     "Writes what the other commands say into one text file, to be read and sent to whoever "
     "helps:\n"
     "versions, doctor, status, settings, interfaces, devices, items, and the locator's last 200\n"
     "reports. Says what it will contain first. Without FILE it makes talvorn-report-DATE.txt.\n",
     BugReportOptions, &ToolOptions::outputFile},
    {"version", "", ToolCommand::kVersion, "the version of the locator",
     "Asks the locator for its version.\n", AnswerOptions, nullptr},
    {"log path", "[DIR]", ToolCommand::kLogPath, "where client programs write their logs",
     "Shows the directory that the locator keeps for the logs of client programs, after\n"
     "setting it when DIR is given. It is forgotten when the locator ends.\n",
     LogPathOptions, &ToolOptions::directory},
    {"log start", "", ToolCommand::kLogStart, "tells client programs to write logs",
     "Switches the log mode on: client programs are told to write logs.\n", AnswerOptions, nullptr},
    {"log stop", "", ToolCommand::kLogStop, "tells them to stop", "Switches the log mode off.\n",
     AnswerOptions, nullptr},
    {"hold", "", ToolCommand::kHold, "keeps a locator alive that was started with /dynamic",
     "Tells a locator that was started with /dynamic that it is needed, until Ctrl-C.\n",
     HoldOptions, nullptr},
    {"reinit", "ADDRESS", ToolCommand::kReinit, "makes the locator take up an interface anew",
     "Makes the locator stop its work on the interface with this IPv4 address and take it up\n"
     "anew. Needs the right to write the locator's settings.\n",
     ReinitOptions, &ToolOptions::address},
    {"metrics", "", ToolCommand::kMetrics, "numbers for monitoring, in the Prometheus text format",
     "Writes numbers for monitoring in the Prometheus text format: whether the locator answers\n"
     "and how fast, its devices and items, datagrams that were dropped; with --listen who asks on\n"
     "each interface and how many devices answer. That the locator does not answer is one of them\n"
     "(talvorn_up 0), and no failure.\n",
     MetricsOptions, nullptr},
    {"completion", "SHELL", ToolCommand::kCompletion, "a script that completes this command line",
     "Prints a script for bash, zsh or powershell that completes commands and options:\n"
     "  source <(talvorn completion bash)\n"
     "  talvorn completion powershell | Out-String | Invoke-Expression\n"
     "talvorn-sim --completion SHELL does the same for talvorn-sim.\n",
     NoOptions, &ToolOptions::shell},
});

std::string GeneralHelp() {
  constexpr std::size_t kNameWidth = 18;
  std::string help =
      "Usage: talvorn COMMAND [OPTIONS]\n"
      "\n"
      "Shows what the TALVORN locator on this machine knows.\n"
      "\n";
  for (const CommandEntry& entry : kCommands) {
    std::string name(entry.name);
    if (!entry.operand.empty()) name.append(" ").append(entry.operand);
    name.resize(kNameWidth, ' ');
    help.append("  ").append(name).append(entry.summary).append("\n");
  }
  return help.append(
      "\n"
      "  --help            shows this text; after a command, that command's options\n"
      "  --version         shows the version of this program\n"
      "\n"
      "Example, the devices as they come and go:\n"
      "  talvorn devices --watch\n");
}

std::string HelpOf(const CommandEntry& entry, std::span<const Option> options) {
  return Concat({"Usage: talvorn ", entry.name, entry.operand.empty() ? "" : " ", entry.operand,
                 " [OPTIONS]\n\n", entry.description, "\n", OptionsHelp(options),
                 ExitStatusHelp(entry.command)});
}

std::string Quoted(std::string_view text) { return Concat({"'", EscapeForTerminal(text), "'"}); }

bool IsHelp(std::string_view argument) { return argument == "--help" || argument == "-h"; }

// The command that the arguments begin with; null for none. `words` is set to the
// number of arguments that name it.
const CommandEntry* FindCommand(std::span<const std::string> arguments, std::size_t& words) {
  for (const CommandEntry& entry : kCommands) {
    words = entry.name.find(' ') == std::string_view::npos ? 1 : 2;
    if (arguments.size() < words) continue;
    const std::string name = words == 1 ? arguments[0] : Concat({arguments[0], " ", arguments[1]});
    if (name == entry.name) return &entry;
  }
  return nullptr;
}

std::vector<Option> OptionsOf(const CommandEntry& entry, ToolOptions& options, bool& help) {
  std::vector<Option> table = entry.optionsOf(options);
  table.push_back({"--help", "", "shows this text", TakeSwitch(help)});
  return table;
}

std::optional<ToolMistake> ParseCommand(const CommandEntry& entry,
                                        std::span<const std::string> arguments,
                                        ToolOptions& options) {
  options.command = entry.command;
  bool help = false;
  const std::vector<Option> table = OptionsOf(entry, options, help);
  if (std::ranges::any_of(arguments, IsHelp)) {
    options.help = HelpOf(entry, table);
    options.command = ToolCommand::kHelp;
    return std::nullopt;
  }

  const ToolMistake mistake{{}, Concat({"talvorn ", entry.name, " --help"})};
  const auto wrong = [&mistake](std::string sentence) {
    return ToolMistake{std::move(sentence), mistake.helpWith};
  };
  std::vector<std::string> operands;
  if (auto sentence = ParseOptions(arguments, table, operands)) return wrong(std::move(*sentence));
  if (operands.size() > (entry.operandField == nullptr ? 0U : 1U)) {
    return wrong(Concat({"'", entry.name, "' takes no ", operands.size() > 1 ? "further " : "",
                         "argument ", Quoted(operands.back())}));
  }
  if (!operands.empty()) options.*entry.operandField = operands.front();
  const bool needed = !entry.operand.empty() && !entry.operand.starts_with('[');
  if (needed && operands.empty())
    return wrong(Concat({"'", entry.name, "' needs ", entry.operand}));
  if (!operands.empty() && operands.front().empty())
    return wrong(Concat({"'", entry.name, "' does not take an empty ", entry.operand}));
  if (options.command == ToolCommand::kCompletion && !ShellOf(options.shell))
    return wrong(Concat({Quoted(options.shell), " is none of bash, zsh and powershell"}));
  if (options.json && !options.columns.empty())
    return wrong("--columns is for tables, and JSON has all of them");
  if (options.resetDirectory && !options.directory.empty())
    return wrong("a directory and --reset exclude each other");
  return std::nullopt;
}

}  // namespace

std::optional<ToolMistake> ParseToolOptions(std::span<const std::string> arguments,
                                            ToolOptions& options) {
  const std::string helpWith = "talvorn --help";
  if (arguments.empty()) return ToolMistake{"a command is missing", helpWith};
  if (arguments[0] == "--version") {
    options.command = ToolCommand::kToolVersion;
    return std::nullopt;
  }
  if (IsHelp(arguments[0]) || (arguments[0] == "help" && arguments.size() == 1)) {
    options.help = GeneralHelp();
    return std::nullopt;
  }
  std::size_t words = 0;
  if (arguments[0] == "help") {
    const CommandEntry* const entry = FindCommand(arguments.subspan(1), words);
    const std::string asked[] = {"--help"};
    if (entry != nullptr) return ParseCommand(*entry, asked, options);
    return ToolMistake{Concat({"there is no command ", Quoted(arguments[1])}), helpWith};
  }
  if (const CommandEntry* const entry = FindCommand(arguments, words))
    return ParseCommand(*entry, arguments.subspan(words), options);

  if (arguments[0] == "log" && arguments.size() > 1 && IsHelp(arguments[1])) {
    for (const CommandEntry& entry : kCommands) {
      if (!entry.name.starts_with("log ")) continue;
      options.help.append(options.help.empty() ? "" : "\n")
          .append(HelpOf(entry, entry.optionsOf(options)));
    }
    return std::nullopt;
  }
  if (arguments[0] == "log")
    return ToolMistake{"'log' is followed by start, stop or path", helpWith};
  const bool option = arguments[0].starts_with('-');
  return ToolMistake{Concat({"there is no ", option ? "option " : "command ", Quoted(arguments[0]),
                             option ? " without a command" : ""}),
                     helpWith};
}

std::string ToolCompletion(Shell shell) {
  ToolOptions options;
  bool help = false;
  std::vector<CompletedCommand> commands;
  for (const CommandEntry& entry : kCommands) {
    commands.push_back({std::string(entry.name), std::string(entry.operand),
                        std::string(entry.summary), OptionsOf(entry, options, help)});
  }
  return CompletionScript(shell, "talvorn", commands);
}

}  // namespace talvorn
