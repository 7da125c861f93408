#include "client/tool/text_style.h"

#include <cstdlib>

#include "command_line/concat.h"
#include "platform/console.h"

namespace talvorn {
namespace {

// ECMA-48, "select graphic rendition".
std::string_view SequenceOf(TextStyle style) {
  switch (style) {
    case TextStyle::kStrong:
      return "\x1b[1m";
    case TextStyle::kGood:
      return "\x1b[32m";
    case TextStyle::kAttention:
      return "\x1b[33m";
    case TextStyle::kAlarm:
      return "\x1b[1;31m";
    case TextStyle::kFaint:
      return "\x1b[2m";
    case TextStyle::kPlain:
      break;
  }
  return {};
}

std::string_view Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view{} : value;
}

}  // namespace

bool OutputTakesSequences() {
  return platform::OutputIsTerminal() && Environment("TERM") != "dumb";
}

bool OutputTakesStyles() { return OutputTakesSequences() && Environment("NO_COLOR").empty(); }

std::string Styled(std::string_view text, TextStyle style) {
  const std::string_view sequence = SequenceOf(style);
  return Concat({sequence, text, sequence.empty() ? "" : "\x1b[0m"});
}

}  // namespace talvorn
