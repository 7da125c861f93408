// How a text stands out on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace talvorn {

enum class TextStyle { kPlain, kStrong, kGood, kAttention, kAlarm, kFaint };

// Standard output is a terminal that follows control sequences (TERM is not "dumb").
[[nodiscard]] bool OutputTakesSequences();

// It is, and NO_COLOR does not forbid them.
[[nodiscard]] bool OutputTakesStyles();

inline constexpr std::string_view kEraseRestOfLine = "\x1b[K";

// The text, and the style ended behind it.
[[nodiscard]] std::string Styled(std::string_view text, TextStyle style);

}  // namespace talvorn
