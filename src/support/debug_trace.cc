#include "support/debug_trace.h"

#include <algorithm>

#include "platform/debug_output.h"
#include "support/completed.h"

namespace talvorn {
namespace {

// `text` with `prefix` in front of every line and a newline at the end of a last
// line that has none.
std::u16string PrefixLines(std::u16string_view text, std::u16string_view prefix) {
  const auto newlines = static_cast<std::size_t>(std::count(text.begin(), text.end(), u'\n'));
  std::u16string lines;
  lines.reserve((newlines + 1) * prefix.size() + text.size() + 1);
  while (!text.empty()) {
    const std::size_t newline = text.find(u'\n');
    const std::u16string_view line = text.substr(0, newline);
    lines.append(prefix).append(line).push_back(u'\n');
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return lines;
}

}  // namespace

CDebugTrace& DebugTrace() {
  static CDebugTrace trace;
  return trace;
}

void CDebugTrace::SetPrefix(std::u16string_view text) {
  const std::lock_guard guard(lock);
  prefix.clear();
  (void)Completed([&] { prefix = text; });  // or the trace runs on without one
}

void CDebugTrace::WriteLines(std::u16string_view format,
                             std::span<const FormatArgument<char16_t>> arguments) {
  const std::lock_guard guard(lock);
  (void)Completed([&] {
    std::u16string text(FormatInto(std::span<char16_t>(), format, arguments), u'\0');
    FormatInto(text, format, arguments);
    platform::DebugOutputW(PrefixLines(text, prefix));
  });
}

void CDebugTrace::WriteNarrow(std::string_view format,
                              std::span<const FormatArgument<char>> arguments) {
  const std::lock_guard guard(lock);
  (void)Completed([&] {
    std::string text(FormatInto(std::span<char>(), format, arguments), '\0');
    FormatInto(text, format, arguments);
    platform::DebugOutputA(text);
  });
}

}  // namespace talvorn
