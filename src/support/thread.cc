#include "support/thread.h"

#include <string_view>
#include <utility>

#include "support/completed.h"
#include "support/debug_trace.h"

namespace talvorn {

platform::Thread StartThread(const char* name, platform::Thread::Procedure procedure) {
  platform::Thread thread;
  (void)Completed([&] {
    thread = platform::Thread::Start(name, [name, run = std::move(procedure)]() -> std::uint32_t {
      try {
        return run();
      } catch (...) {
        TraceA("%s thread ended early\n", std::string_view(name));
        return 1;
      }
    });
  });
  return thread;
}

}  // namespace talvorn
