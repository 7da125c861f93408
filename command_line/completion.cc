#include "command_line/completion.h"

#include <algorithm>
#include <iterator>

#include "command_line/concat.h"

namespace talvorn {
namespace {

// What a value may be, told from how the usage calls it.
enum class ValueKind { kNone, kChoice, kFolder, kFile, kInterface, kAny };

std::string_view Unbracketed(std::string_view placeholder) {
  return placeholder.starts_with('[') ? placeholder.substr(1, placeholder.size() - 2) : placeholder;
}

ValueKind KindOf(std::string_view placeholder, bool choices) {
  const std::string_view name = Unbracketed(placeholder);
  if (name.empty()) return ValueKind::kNone;
  if (choices) return ValueKind::kChoice;
  if (name == "DIR") return ValueKind::kFolder;
  if (name == "FILE") return ValueKind::kFile;
  if (name == "IF") return ValueKind::kInterface;
  return ValueKind::kAny;
}

std::string NamesOf(std::span<const Option> options) {
  std::vector<std::string> names;
  for (const Option& option : options) names.emplace_back(option.name);
  return Joined(names, " ");
}

struct NamedShell {
  std::string name;
  Shell shell;
};
const NamedShell kShells[] = {
    {"bash", Shell::kBash}, {"zsh", Shell::kZsh}, {"powershell", Shell::kPowerShell}};

// What an operand may be, where that can be listed.
std::vector<std::string> ChoicesOf(std::string_view operand) {
  std::vector<std::string> choices;
  if (operand == "SHELL")
    for (const NamedShell& one : kShells) choices.push_back(one.name);
  return choices;
}

// The first words of the commands, and what may follow one of them.
std::vector<std::string> FirstWords(std::span<const CompletedCommand> commands) {
  std::vector<std::string> words;
  for (const CompletedCommand& command : commands) {
    std::string word = command.name.substr(0, command.name.find(' '));
    if (!word.empty() && std::ranges::find(words, word) == words.end())
      words.push_back(std::move(word));
  }
  return words;
}

std::vector<std::string> SecondWords(std::span<const CompletedCommand> commands,
                                     std::string_view first) {
  std::vector<std::string> words;
  for (const CompletedCommand& command : commands)
    if (command.name.starts_with(Concat({first, " "})))
      words.push_back(command.name.substr(first.size() + 1));
  return words;
}

// "talvorn-sim" as a part of a shell function's name.
std::string FunctionName(std::string_view program) {
  std::string name = Concat({"_", program});
  std::ranges::replace(name, '-', '_');
  return name;
}

std::string Quoted(std::string_view text, std::string_view quoteInside) {
  std::string quoted = "'";
  for (const char c : text) c == '\'' ? quoted.append(quoteInside) : quoted.append(1, c);
  return quoted.append("'");
}

// ---- bash ----

// Offers words, or what the system has of a kind.
std::string BashOffer(ValueKind kind, std::span<const std::string> choices) {
  switch (kind) {
    case ValueKind::kChoice:
      return Concat({"COMPREPLY=($(compgen -W '", Joined(choices, " "), "' -- \"$word\"))"});
    case ValueKind::kFolder:
      return "compopt -o filenames; COMPREPLY=($(compgen -d -- \"$word\"))";
    case ValueKind::kFile:
      return "compopt -o filenames; COMPREPLY=($(compgen -f -- \"$word\"))";
    case ValueKind::kInterface:
      return "COMPREPLY=($(compgen -W \"$(ls /sys/class/net 2>/dev/null)\" -- \"$word\"))";
    case ValueKind::kNone:
    case ValueKind::kAny:
      break;
  }
  return ":";
}

std::string BashWords(const std::vector<std::string>& words) {
  return BashOffer(ValueKind::kChoice, words);
}

// What follows the words of a command; `indent` is in front of each line.
std::string BashCommand(const CompletedCommand& command, std::string_view indent) {
  std::string text = Concat({indent, "case $before in\n"});
  for (const Option& option : command.options) {
    const ValueKind kind = KindOf(option.value, !option.choices.empty());
    // An optional value is a number; what follows may be the next option.
    if (kind == ValueKind::kNone || option.value.starts_with('[')) continue;
    text.append(Concat(
        {indent, "  ", option.name, ") ", BashOffer(kind, option.choices), "; return ;;\n"}));
  }
  text.append(Concat({indent, "esac\n"}));
  const std::string names =
      Concat({"COMPREPLY=($(compgen -W '", NamesOf(command.options), "' -- \"$word\"))"});
  const std::vector<std::string> choices = ChoicesOf(command.operand);
  const ValueKind operand = KindOf(command.operand, !choices.empty());
  if (operand != ValueKind::kNone && operand != ValueKind::kAny) {
    return text.append(Concat({indent, "if [[ $word == -* ]]; then ", names, "; else ",
                               BashOffer(operand, choices), "; fi\n"}));
  }
  return text.append(Concat({indent, names, "\n"}));
}

std::string BashScript(std::string_view program, std::span<const CompletedCommand> commands) {
  const std::string function = FunctionName(program);
  std::string text =
      Concat({"# bash completion for ", program, "\n", function,
              "() {\n"
              "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
              "  COMPREPLY=()\n"});
  const std::vector<std::string> first = FirstWords(commands);
  if (first.empty()) {
    text.append(BashCommand(commands.front(), "  "));
  } else {
    text.append("  case \"${COMP_WORDS[*]:1:COMP_CWORD - 1} \" in\n");
    for (const CompletedCommand& command : commands) {
      text.append(
          Concat({"    '", command.name, " '*)\n", BashCommand(command, "      "), "      ;;\n"}));
    }
    for (const std::string& word : first) {
      const std::vector<std::string> second = SecondWords(commands, word);
      if (!second.empty()) text.append(Concat({"    '", word, " ') ", BashWords(second), " ;;\n"}));
    }
    std::vector<std::string> all = first;
    all.insert(all.end(), {"--help", "--version"});
    text.append(Concat({"    ' ') ", BashWords(all), " ;;\n  esac\n"}));
  }
  return text.append(Concat({"}\ncomplete -F ", function, " ", program, "\n"}));
}

// ---- zsh ----

std::string ZshAction(ValueKind kind, std::span<const std::string> choices) {
  switch (kind) {
    case ValueKind::kChoice:
      return Concat({"(", Joined(choices, " "), ")"});
    case ValueKind::kFolder:
      return "_files -/";
    case ValueKind::kFile:
      return "_files";
    case ValueKind::kInterface:
      return "_net_interfaces";
    case ValueKind::kNone:
    case ValueKind::kAny:
      break;
  }
  return " ";
}

// The first line of a help text, without what _arguments takes for its own.
std::string ZshHelp(std::string_view help) {
  std::string line(help.substr(0, help.find('\n')));
  for (const char c : {'[', ']', ':'}) std::erase(line, c);
  return line;
}

std::string ZshArguments(const CompletedCommand& command, std::string_view indent) {
  std::string text = Concat({indent, "_arguments"});
  for (const Option& option : command.options) {
    const ValueKind kind = KindOf(option.value, !option.choices.empty());
    std::string word = Concat({option.name, "[", ZshHelp(option.help), "]"});
    if (kind != ValueKind::kNone) {
      word.append(Concat({option.value.starts_with('[') ? "::" : ":", Unbracketed(option.value),
                          ":", ZshAction(kind, option.choices)}));
    }
    text.append(Concat({" \\\n", indent, "  ", Quoted(word, "'\\''")}));
  }
  if (!command.operand.empty()) {
    const std::vector<std::string> choices = ChoicesOf(command.operand);
    const std::string word =
        Concat({"1:", Unbracketed(command.operand), ":",
                ZshAction(KindOf(command.operand, !choices.empty()), choices)});
    text.append(Concat({" \\\n", indent, "  ", Quoted(word, "'\\''")}));
  }
  return text.append("\n");
}

std::string ZshScript(std::string_view program, std::span<const CompletedCommand> commands) {
  std::string text = Concat({"#compdef ", program, "\n"});
  const std::vector<std::string> first = FirstWords(commands);
  if (first.empty()) return text.append(ZshArguments(commands.front(), ""));
  text.append("local -a commands=(\n");
  for (const std::string& word : first) {
    const auto command = std::ranges::find_if(
        commands, [&](const CompletedCommand& one) { return one.name.starts_with(word); });
    text.append(Concat({"  ", Quoted(Concat({word, ":", command->summary}), "'\\''"), "\n"}));
  }
  text.append(
      ")\n"
      "if ((CURRENT == 2)); then\n"
      "  _describe command commands\n"
      "  return\n"
      "fi\n"
      "local command=$words[2]\n"
      "shift words\n"
      "((CURRENT--))\n");
  for (const std::string& word : first) {
    const std::vector<std::string> second = SecondWords(commands, word);
    if (second.empty()) continue;
    text.append(Concat({"if [[ $command == ", word, " ]]; then\n  if ((CURRENT == 2)); then\n",
                        "    compadd ", Joined(second, " "),
                        "\n    return\n  fi\n  command=\"$command $words[2]\"\n  shift words\n"
                        "  ((CURRENT--))\nfi\n"}));
  }
  text.append("case $command in\n");
  for (const CompletedCommand& command : commands)
    text.append(Concat({"  '", command.name, "')\n", ZshArguments(command, "    "), "    ;;\n"}));
  return text.append("esac\n");
}

// ---- PowerShell ----

std::string PowerShellScript(std::string_view program, std::span<const CompletedCommand> commands) {
  std::string text = Concat({"# PowerShell completion for ", program,
                             "\nRegister-ArgumentCompleter -Native -CommandName ", program,
                             " -ScriptBlock {\n"
                             "  param($word, $ast, $position)\n"
                             "  $line = @($ast.CommandElements | Select-Object -Skip 1 |"
                             " ForEach-Object { \"$_\" })\n"
                             "  if ($word -ne '' -and $line.Count -gt 0) {"
                             " $line = @($line | Select-Object -SkipLast 1) }\n"
                             "  $before = if ($line.Count -gt 0) { $line[-1] } else { '' }\n"
                             "  $said = \"$line \"\n"});
  const auto offer = [](std::span<const std::string> words) {
    std::string list = "@(";
    for (const std::string& word : words)
      list.append(list.size() > 2 ? ", " : "").append(Quoted(word, "''"));
    return list.append(")");
  };
  text.append("  $words = @()\n");
  for (const CompletedCommand& command : commands) {
    std::vector<std::string> names;
    for (const Option& option : command.options) names.emplace_back(option.name);
    std::ranges::move(ChoicesOf(command.operand), std::back_inserter(names));
    const std::string said = command.name.empty() ? "*" : Concat({command.name, " *"});
    text.append(Concat({"  if ($said -like '", said, "') {\n    $words = ", offer(names), "\n"}));
    for (const Option& option : command.options) {
      if (option.value.empty() || option.value.starts_with('[')) continue;
      text.append(Concat(
          {"    if ($before -eq '", option.name, "') { $words = ", offer(option.choices), " }\n"}));
    }
    text.append("  }\n");
  }
  const std::vector<std::string> first = FirstWords(commands);
  if (!first.empty()) {
    for (const std::string& word : first) {
      const std::vector<std::string> second = SecondWords(commands, word);
      if (!second.empty())
        text.append(Concat({"  if ($said -eq '", word, " ') { $words = ", offer(second), " }\n"}));
    }
    std::vector<std::string> all = first;
    all.insert(all.end(), {"--help", "--version"});
    text.append(Concat({"  if ($line.Count -eq 0) { $words = ", offer(all), " }\n"}));
  }
  return text.append(
      "  $words | Where-Object { $_ -like \"$word*\" } | ForEach-Object {\n"
      "    [System.Management.Automation.CompletionResult]::new($_)\n"
      "  }\n"
      "}\n");
}

}  // namespace

std::optional<Shell> ShellOf(std::string_view name) {
  const auto* shell = std::ranges::find(kShells, name, &NamedShell::name);
  return shell == std::end(kShells) ? std::nullopt : std::optional(shell->shell);
}

std::string CompletionScript(Shell shell, std::string_view program,
                             std::span<const CompletedCommand> commands) {
  switch (shell) {
    case Shell::kBash:
      return BashScript(program, commands);
    case Shell::kZsh:
      return ZshScript(program, commands);
    case Shell::kPowerShell:
      break;
  }
  return PowerShellScript(program, commands);
}

}  // namespace talvorn
