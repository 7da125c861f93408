// The options of a command-line tool. One table says what each is called, what it
// takes and what the help shows; the same table parses the arguments.
//
//   std::uint32_t devices = 1;
//   const std::vector<Option> options = {
//       {"--devices", "N", "number of devices (default 1)", TakeNumber(devices, 0, 1'000'000)}};
//   std::vector<std::string> operands;
//   if (const auto mistake = ParseOptions(arguments, options, operands)) Complain(*mistake);
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace talvorn {

// Takes the value of an option. Returns what is wanted instead ("a number from 1 to
// 9") when the value is none, and the empty text when all is well.
using TakeValue = std::function<std::string(std::string_view value)>;

struct Option {
  std::string_view name;   // with its dashes
  std::string_view value;  // as the help calls it; empty for a switch, "[X]" when optional
  std::string_view help;   // one or more lines
  TakeValue take;          // gets the empty text when an optional value is not given
  std::vector<std::string> choices{};  // all that the value may be; empty: cannot be listed
};

// Whole numbers from `min` to `max`, in decimal digits.
[[nodiscard]] TakeValue TakeNumber(std::uint32_t& target, std::uint32_t min, std::uint32_t max);
// Seconds with up to three decimals, kept in milliseconds.
[[nodiscard]] TakeValue TakeSeconds(std::uint32_t& targetMs, std::uint32_t minMs,
                                    std::uint32_t maxMs);
[[nodiscard]] TakeValue TakeText(std::string& target);
[[nodiscard]] TakeValue TakeSwitch(bool& target);

// An option whose value is one of a few names, each for a value of `target`.
template <class T>
[[nodiscard]] Option ChoiceOption(std::string_view name, std::string_view value,
                                  std::string_view help, T& target,
                                  std::vector<std::pair<std::string, T>> kinds) {
  Option option{name, value, help, {}};
  for (const auto& kind : kinds) option.choices.push_back(kind.first);
  option.take = [&target, kinds = std::move(kinds)](std::string_view given) -> std::string {
    std::string names;
    for (const auto& [kind, chosen] : kinds) {
      if (kind == given) {
        target = chosen;
        return {};
      }
      names.append(names.empty() ? "one of " : ", ").append(kind);
    }
    return names;
  };
  return option;
}

[[nodiscard]] std::optional<std::uint32_t> ParseNumber(std::string_view text, std::uint32_t min,
                                                       std::uint32_t max);
// `decimals` digits after the point at most; the result is in units of the last one
// ("1.5" with 3 decimals is 1500).
[[nodiscard]] std::optional<std::uint32_t> ParseDecimal(std::string_view text, std::size_t decimals,
                                                        std::uint32_t min, std::uint32_t max);

// Hands the values to the options and everything else to `operands`. Values follow
// their option as "--name value" or "--name=value"; an optional one that stands by
// itself begins with a digit. After "--" everything is an operand. Returns what is
// wrong with the arguments, as a text without full stop.
[[nodiscard]] std::optional<std::string> ParseOptions(std::span<const std::string> arguments,
                                                      std::span<const Option> options,
                                                      std::vector<std::string>& operands);

// The options as the help lists them, one or more lines each, aligned.
[[nodiscard]] std::string OptionsHelp(std::span<const Option> options);

}  // namespace talvorn
