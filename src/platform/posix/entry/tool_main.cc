// main of the command-line tools on Linux.
#include <new>
#include <string>
#include <vector>

#include "platform/console.h"
#include "platform/posix/process_start.h"
#include "platform/process.h"

int main(int argc, char** argv) {
  if (!talvorn::platform::PrepareProcess()) return 1;  // nowhere to say why
  try {
    return talvorn::ToolMain(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const std::bad_alloc&) {
    (void)talvorn::platform::WriteError("out of memory\n");
    return 1;
  }
}
