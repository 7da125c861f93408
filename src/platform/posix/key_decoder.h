// Keys as terminals send them: characters in UTF-8, others as control sequences.
#pragma once

#include <string>
#include <vector>

#include "platform/keyboard.h"

namespace talvorn::platform {

// Takes the keys off the front of `bytes`; the beginning of one stays there. An escape that
// nothing follows is the key, since a terminal sends a sequence in one piece. What is not known is
// passed over.
[[nodiscard]] std::vector<KeyPress> TakeKeys(std::string& bytes);

}  // namespace talvorn::platform
