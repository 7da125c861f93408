// The diagnostic trace of the process. Any thread may write at any time, also while
// it holds locks of its own; each call leaves as one output string, or is dropped, as
// it is without memory.
// While the trace is off, Trace and TraceA cost one comparison.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "support/text_format.h"

namespace talvorn {

class CDebugTrace {
 public:
  CDebugTrace() = default;
  CDebugTrace(const CDebugTrace&) = delete;
  CDebugTrace& operator=(const CDebugTrace&) = delete;

  // Replaces the text in front of every wide line.
  void SetPrefix(std::u16string_view text);
  // Non-zero switches wide lines and switchable narrow lines on.
  void SetEnabled(std::uint32_t value) { enabled.store(value, std::memory_order_relaxed); }
  [[nodiscard]] bool isEnabled() const { return enabled.load(std::memory_order_relaxed) != 0; }

  // Formatted text, prefixed line by line.
  void WriteLines(std::u16string_view format, std::span<const FormatArgument<char16_t>> arguments);
  // Formatted text as it is.
  void WriteNarrow(std::string_view format, std::span<const FormatArgument<char>> arguments);

 private:
  std::mutex lock;
  std::atomic<std::uint32_t> enabled{1};
  std::u16string prefix;
};

// The one instance; it exists before the process entry runs and until after every
// thread has ended.
[[nodiscard]] CDebugTrace& DebugTrace();

// One or more wide lines, each with the prefix; the last one gets a newline when it
// lacks one.
template <class... Arguments>
void Trace(CheckedFormat<char16_t, std::type_identity_t<Arguments>...> format,
           const Arguments&... arguments) {
  CDebugTrace& trace = DebugTrace();
  if (!trace.isEnabled()) return;
  const FormatArguments<char16_t, sizeof...(Arguments)> list{
      ToFormatArgument<char16_t>(arguments)...};
  trace.WriteLines(format.text(), list);
}

// Narrow text, unchanged, whatever the switch says.
template <class... Arguments>
void TraceAlwaysA(CheckedFormat<char, std::type_identity_t<Arguments>...> format,
                  const Arguments&... arguments) {
  const FormatArguments<char, sizeof...(Arguments)> list{ToFormatArgument<char>(arguments)...};
  DebugTrace().WriteNarrow(format.text(), list);
}

// Narrow text, unchanged.
template <class... Arguments>
void TraceA(CheckedFormat<char, std::type_identity_t<Arguments>...> format,
            const Arguments&... arguments) {
  if (!DebugTrace().isEnabled()) return;
  const FormatArguments<char, sizeof...(Arguments)> list{ToFormatArgument<char>(arguments)...};
  DebugTrace().WriteNarrow(format.text(), list);
}

}  // namespace talvorn
