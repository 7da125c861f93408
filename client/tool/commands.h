// The commands of the tool. Each returns the exit status.
#pragma once

#include <string>

#include "client/tool/tool_options.h"

namespace talvorn {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

// Writes one text to standard output.
[[nodiscard]] int Print(const std::string& text);

[[nodiscard]] int RunListCommand(const ToolOptions& options);     // devices, items
[[nodiscard]] int RunWatchCommand(const ToolOptions& options);    // watch
[[nodiscard]] int RunLocatorCommand(const ToolOptions& options);  // version, log ...
[[nodiscard]] int RunDoctorCommand(const ToolOptions& options);
[[nodiscard]] int RunStatusCommand(const ToolOptions& options);
[[nodiscard]] int RunSettingsCommand(const ToolOptions& options);
[[nodiscard]] int RunBugReportCommand(const ToolOptions& options);
[[nodiscard]] int RunHoldCommand(const ToolOptions& options);
[[nodiscard]] int RunReinitCommand(const ToolOptions& options);
[[nodiscard]] int RunMetricsCommand(const ToolOptions& options);

}  // namespace talvorn
