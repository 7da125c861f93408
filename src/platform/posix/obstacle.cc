#include "platform/obstacle.h"

#include <errno.h>

#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "platform/posix/standard_error.h"

namespace talvorn::platform {

void ReportObstacle(std::string_view sentence) {
  static std::mutex mutex;
  static std::set<std::string, std::less<>> reported;
  const std::lock_guard lock(mutex);
  if (reported.contains(sentence)) return;
  std::string line(program_invocation_short_name);
  line.append(": ").append(sentence).push_back('\n');
  if (WriteIfRoom(line)) reported.emplace(sentence);
}

}  // namespace talvorn::platform
