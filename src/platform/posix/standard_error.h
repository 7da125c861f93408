// Standard error, as the locator's threads write to it: without waiting.
#pragma once

#include <string_view>

namespace talvorn::platform {

// One write of UTF-8, with what could command a terminal escaped where it is one. What
// the reader has no room for is dropped; false when that is all of it.
bool WriteIfRoom(std::string_view text);

}  // namespace talvorn::platform
