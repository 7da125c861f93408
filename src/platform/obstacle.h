// Sentences to the person who started the process, about something outside of it
// that is in its way and what to do about it. Linux only: a process without a window has
// nobody to tell on Windows.
#pragma once

#include <string_view>

namespace talvorn::platform {

// Writes the program's name, ": ", `sentence` and a line feed to standard error,
// each distinct sentence once per process; one that nobody had room for counts as not
// written. Any thread may call it.
void ReportObstacle(std::string_view sentence);

}  // namespace talvorn::platform
