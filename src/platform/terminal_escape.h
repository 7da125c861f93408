// Text on its way to a terminal. What came from the network or another program must not
// command the terminal or reorder a line: such characters are shown as \x1b or \u202e.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// Controls (C0, DEL, C1), line and paragraph separators, and characters that are
// invisible or change the direction of writing.
[[nodiscard]] bool IsUnsafe(char32_t character);

// In UTF-8, and without an unsafe character but those in `kept`.
[[nodiscard]] std::string EscapeForTerminal(std::u16string_view text,
                                            std::u16string_view kept = {});

}  // namespace talvorn::platform
