#include "command_line/options.h"

#include <algorithm>
#include <limits>

#include "command_line/concat.h"
#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::string Quoted(std::string_view text) { return Concat({"'", EscapeForTerminal(text), "'"}); }

// "1.5" for 1500 thousandths.
std::string DecimalText(std::uint32_t thousandths) {
  std::string text = std::to_string(thousandths / 1'000);
  if (const std::uint32_t rest = thousandths % 1'000; rest != 0) {
    const std::string digits = std::to_string(1'000 + rest).substr(1);
    text.append(".").append(digits, 0, digits.find_last_not_of('0') + 1);
  }
  return text;
}

std::string NameWithValue(const Option& option) {
  std::string text(option.name);
  if (!option.value.empty()) text.append(" ").append(option.value);
  return text;
}

}  // namespace

std::optional<std::uint32_t> ParseDecimal(std::string_view text, std::size_t decimals,
                                          std::uint32_t min, std::uint32_t max) {
  const std::size_t point = std::min(text.find('.'), text.size());
  std::string digits(text.substr(0, point));
  const std::string_view fraction = text.substr(std::min(point + 1, text.size()));
  if (digits.empty() || fraction.size() > decimals || (point < text.size() && fraction.empty())) {
    return std::nullopt;
  }
  digits.append(fraction).append(decimals - fraction.size(), '0');
  std::uint64_t number = 0;
  for (const char c : digits) {
    if (!IsDigit(c)) return std::nullopt;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
    if (number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  }
  if (number < min || number > max) return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

std::optional<std::uint32_t> ParseNumber(std::string_view text, std::uint32_t min,
                                         std::uint32_t max) {
  if (text.find('.') != std::string_view::npos) return std::nullopt;
  return ParseDecimal(text, 0, min, max);
}

TakeValue TakeNumber(std::uint32_t& target, std::uint32_t min, std::uint32_t max) {
  return [&target, min, max](std::string_view value) -> std::string {
    const auto number = ParseNumber(value, min, max);
    if (!number)
      return Concat({"a number from ", std::to_string(min), " to ", std::to_string(max)});
    target = *number;
    return {};
  };
}

TakeValue TakeSeconds(std::uint32_t& targetMs, std::uint32_t minMs, std::uint32_t maxMs) {
  return [&targetMs, minMs, maxMs](std::string_view value) -> std::string {
    const auto number = ParseDecimal(value, 3, minMs, maxMs);
    if (!number) {
      return Concat({"a number of seconds from ", DecimalText(minMs), " to ", DecimalText(maxMs)});
    }
    targetMs = *number;
    return {};
  };
}

TakeValue TakeText(std::string& target) {
  return [&target](std::string_view value) -> std::string {
    if (value.empty()) return "a value";
    target = value;
    return {};
  };
}

TakeValue TakeSwitch(bool& target) {
  return [&target](std::string_view) -> std::string {
    target = true;
    return {};
  };
}

std::optional<std::string> ParseOptions(std::span<const std::string> arguments,
                                        std::span<const Option> options,
                                        std::vector<std::string>& operands) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--") {
      operands.insert(operands.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                      arguments.end());
      return std::nullopt;
    }
    if (!argument.starts_with('-') || argument == "-") {
      operands.emplace_back(argument);
      continue;
    }

    const std::size_t equals = std::min(argument.find('='), argument.size());
    const std::string_view name = argument.substr(0, equals);
    const auto option =
        std::ranges::find_if(options, [name](const Option& known) { return known.name == name; });
    if (option == options.end()) return Concat({"there is no option ", Quoted(name)});

    std::string_view value;
    bool given = equals < argument.size();
    if (given) {
      if (option->value.empty()) return Concat({name, " takes no value"});
      value = argument.substr(equals + 1);
    } else if (!option->value.empty() && i + 1 < arguments.size()) {
      const std::string_view next = arguments[i + 1];
      const bool optional = option->value.starts_with('[');
      given = optional ? !next.empty() && IsDigit(next[0]) : !next.starts_with("--");
      if (given) value = arguments[++i];
    }
    if (!given && !option->value.empty() && !option->value.starts_with('[')) {
      return Concat({name, " needs a value (", option->value, ")"});
    }
    if (const std::string wanted = option->take(value); !wanted.empty()) {
      return Concat({name, " takes ", wanted, ", not ", Quoted(value)});
    }
  }
  return std::nullopt;
}

std::string OptionsHelp(std::span<const Option> options) {
  std::size_t width = 0;
  for (const Option& option : options) width = std::max(width, NameWithValue(option).size());
  std::string help;
  for (const Option& option : options) {
    std::string left = Concat({"  ", NameWithValue(option)});
    std::string_view rest = option.help;
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      left.resize(width + 4, ' ');
      help.append(left).append(rest.substr(0, end)).append("\n");
      left.clear();
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
  return help;
}

}  // namespace talvorn
