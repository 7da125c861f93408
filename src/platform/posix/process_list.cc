#include "platform/process_list.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace talvorn::platform {

// Processes whose network this account may not see count as well.
std::size_t CountProcesses(std::string_view program) {
  const auto network = [](const std::string& process) {
    struct stat status {};
    return stat((process + "/ns/net").c_str(), &status) == 0 ? status.st_ino : 0;
  };
  const ino_t own = network("/proc/thread-self");
  std::size_t count = 0;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", gone)) {
    const std::string process = entry.path().string();
    std::string name;
    if (!std::getline(std::ifstream(process + "/comm"), name) || name != program) continue;
    const ino_t other = network(process);
    if (other == 0 || other == own) ++count;
  }
  return count;
}

}  // namespace talvorn::platform
