#include "platform/process_list.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// 0 when this account may not see it.
ino_t NetworkOf(const std::string& process) {
  struct stat status {};
  return stat((process + "/ns/net").c_str(), &status) == 0 ? status.st_ino : 0;
}

std::optional<std::u16string> CommandLineOf(const std::string& process) {
  std::ifstream file(process + "/cmdline", std::ios::binary);
  std::string line{std::istreambuf_iterator<char>(file), {}};
  const std::size_t behindName = line.find('\0');
  if (behindName == line.npos) return std::nullopt;
  line.erase(0, behindName + 1);
  if (line.ends_with('\0')) line.pop_back();
  std::ranges::replace(line, '\0', ' ');
  return Utf8ToWide(line);
}

}  // namespace

// Processes whose network this account may not see count as well.
std::vector<RunningProgram> RunningPrograms(std::string_view program) {
  const ino_t own = NetworkOf("/proc/thread-self");
  std::vector<RunningProgram> running;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", gone)) {
    const std::string process = entry.path().string();
    std::string name;
    if (!std::getline(std::ifstream(process + "/comm"), name) || name != program) continue;
    if (const ino_t other = NetworkOf(process); other != 0 && other != own) continue;
    RunningProgram one{.commandLine = CommandLineOf(process)};
    const std::string number = entry.path().filename().string();
    std::from_chars(number.data(), number.data() + number.size(), one.processId);
    running.push_back(std::move(one));
  }
  return running;
}

}  // namespace talvorn::platform
