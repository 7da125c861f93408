// Scripts that let a shell complete a tool's commands and options, made of the tables that the
// tool itself reads them by.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "command_line/options.h"

namespace talvorn {

enum class Shell { kBash, kZsh, kPowerShell };

// "bash", "zsh" or "powershell".
[[nodiscard]] std::optional<Shell> ShellOf(std::string_view name);

struct CompletedCommand {
  std::string name;     // one or two words; empty for a program without commands
  std::string operand;  // as its usage shows it, "[DIR]"; empty for none
  std::string summary;
  std::vector<Option> options;
};

// The script for `program`, whose commands these are.
[[nodiscard]] std::string CompletionScript(Shell shell, std::string_view program,
                                           std::span<const CompletedCommand> commands);

}  // namespace talvorn
