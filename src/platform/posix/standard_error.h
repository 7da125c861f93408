// Standard error, as the locator's threads write to it: without waiting.
#pragma once

#include <string_view>

namespace talvorn::platform {

// One write of UTF-8. What the reader has no room for is dropped.
void WriteIfRoom(std::string_view text);

}  // namespace talvorn::platform
