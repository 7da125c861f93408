// Text on its way to a terminal: escaped, measured and cut.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace talvorn {

[[nodiscard]] std::string EscapeForTerminal(std::string_view utf8);

// A text as devices send it, in their code page.
[[nodiscard]] std::string EscapeForeign(std::string_view text);

// Columns that a text takes up: two for wide East Asian characters and pictographs,
// none for combining marks.
[[nodiscard]] std::size_t DisplayWidth(std::string_view utf8);

// The text itself when it takes up at most `width` columns, else its beginning and
// an ellipsis.
[[nodiscard]] std::string CutToWidth(std::string_view utf8, std::size_t width);

}  // namespace talvorn
