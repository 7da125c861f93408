// talvorn: the command-line client of the locator.
#include "client/tool/commands.h"
#include "client/tool/session.h"
#include "client/tool/tool_options.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/console.h"
#include "platform/foreign_text.h"
#include "platform/process.h"
#include "version.h"

namespace talvorn {

int ToolMain(const std::vector<std::string>& arguments) {
  ToolOptions options;
  if (const auto mistake = ParseToolOptions(arguments, options)) {
    (void)platform::WriteError(
        Concat({"talvorn: ", mistake->sentence, "\nTry '", mistake->helpWith, "'.\n"}));
    return kWrongUsage;
  }
  if (options.command == ToolCommand::kHelp) return Print(options.help);
  if (options.command == ToolCommand::kToolVersion)
    return Print(Concat({"talvorn ", kVersion, "\n"}));
  if (const std::string obstacle = platform::CodePageObstacle(); !obstacle.empty()) {
    Complain(Concat({EscapeForTerminal(obstacle), ". 'iconv -l' lists those there are"}));
    return kWrongUsage;
  }
  switch (options.command) {
    case ToolCommand::kHelp:
    case ToolCommand::kToolVersion:
      break;
    case ToolCommand::kDevices:
    case ToolCommand::kItems:
      return RunListCommand(options);
    case ToolCommand::kWatch:
      return RunWatchCommand(options);
    case ToolCommand::kVersion:
    case ToolCommand::kLogStart:
    case ToolCommand::kLogStop:
    case ToolCommand::kLogPath:
      return RunLocatorCommand(options);
    case ToolCommand::kDoctor:
      return RunDoctorCommand(options);
    case ToolCommand::kStatus:
      return RunStatusCommand(options);
    case ToolCommand::kSettings:
      return RunSettingsCommand(options);
    case ToolCommand::kBugReport:
      return RunBugReportCommand(options);
    case ToolCommand::kHold:
      return RunHoldCommand(options);
    case ToolCommand::kReinit:
      return RunReinitCommand(options);
    case ToolCommand::kMetrics:
      return RunMetricsCommand(options);
    case ToolCommand::kCompletion:
      return Print(ToolCompletion(*ShellOf(options.shell)));
  }
  return kFailed;
}

}  // namespace talvorn
