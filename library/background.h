// A thread that works for one object until that is closed.
#pragma once

#include <cstdint>

#include "platform/event.h"
#include "platform/thread.h"

namespace talvorn {

class Background {
 public:
  Background() : stop_(platform::Event::Create(platform::Event::Mode::kManualReset)) {}
  ~Background() {
    (void)stop_.Set();
    thread_.Join();
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  // Runs `work(stop)`, which returns soon after `stop` is set. False when the system has no
  // thread or event to give.
  template <class Work>
  [[nodiscard]] bool Start(const char* name, Work work) {
    if (!stop_.valid()) return false;
    thread_ = platform::Thread::Start(name, [this, work]() -> std::uint32_t {
      work(stop_);
      return 0;
    });
    return thread_.valid();
  }

 private:
  platform::Event stop_;
  platform::Thread thread_;
};

}  // namespace talvorn
