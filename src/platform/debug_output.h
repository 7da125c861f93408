// Where the diagnostic trace goes: the debugger, or standard error (UTF-8, one
// write per string). Never blocks: what the reader has no room for is dropped.
#pragma once

#include <string_view>

namespace talvorn::platform {

void DebugOutputW(std::u16string_view text);
void DebugOutputA(std::string_view text);

}  // namespace talvorn::platform
