// Text on its way to a terminal. What came from the network must not command the
// terminal or reorder a line: such characters are shown as \x1b or \u202e.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace talvorn {

// Controls (C0, DEL, C1), line and paragraph separators, and characters that are
// invisible or change the direction of writing.
[[nodiscard]] bool IsUnsafe(char32_t character);

// Takes the next character off the front of `text`, which is not empty; a lone
// surrogate stands for itself.
[[nodiscard]] char32_t TakeCharacter(std::u16string_view& text);

[[nodiscard]] std::string EscapeForTerminal(std::u16string_view text);
[[nodiscard]] std::string EscapeForTerminal(std::string_view utf8);

// A text in the narrow code page, as devices and the locator send them.
[[nodiscard]] std::string EscapeNarrow(std::string_view text);

// Columns that a text takes up: two for wide East Asian characters and pictographs,
// none for combining marks.
[[nodiscard]] std::size_t DisplayWidth(std::string_view utf8);

// The text itself when it takes up at most `width` columns, else its beginning and
// an ellipsis.
[[nodiscard]] std::string CutToWidth(std::string_view utf8, std::size_t width);

}  // namespace talvorn
