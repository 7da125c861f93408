// Tells the person who started the process what outside of it is in its way and what to do about
// it. Does nothing on Windows, where nobody would see it.
#pragma once

#include <string_view>

namespace talvorn::platform {

// Writes the program's name, ": ", `sentence` and a line feed to standard error, without waiting
// and each sentence once. Any thread may call it.
void ReportObstacle(std::string_view sentence);

}  // namespace talvorn::platform
