#include "platform/obstacle.h"

#include <errno.h>

#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <string>

#include "platform/posix/standard_error.h"

namespace talvorn::platform {

void ReportObstacle(std::string_view sentence) {
  static std::mutex mutex;
  static std::set<std::string, std::less<>> reported;
  try {
    const std::lock_guard lock(mutex);
    if (reported.contains(sentence)) return;
    std::string line(program_invocation_short_name);
    line.append(": ").append(sentence).push_back('\n');
    if (WriteIfRoom(line)) reported.emplace(sentence);
  } catch (const std::bad_alloc&) {
    // Without memory the sentence is lost; the failure itself is still returned.
  }
}

}  // namespace talvorn::platform
