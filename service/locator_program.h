// The locator as a child of this process, in a job of its own: it ends when this object or
// the process goes, however that comes about, and can start no other program.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/waitable.h"
#include "service/supervision.h"
#include "support/event_source.h"

namespace talvorn::service {

class LocatorProgram final : public Supervised {
 public:
  // `path`: of the program, absolute. It is to be stopped once `stop` is signalled. Reports to
  // `events`. Both have to outlive this object.
  LocatorProgram(std::u16string path, const platform::Waitable& stop, const EventSource& events);
  // Ends the program.
  ~LocatorProgram();

  bool Start() override;
  bool WaitForEnd() override;
  bool PauseBeforeStart(std::uint32_t pauseMs) override;
  std::uint64_t NowMs() override;

 private:
  struct Run;

  const std::u16string path_;
  const platform::Waitable& stop_;
  const EventSource& events_;
  std::unique_ptr<Run> run_;         // none before the first start, and while it cannot be started
  std::uint32_t reportedError_ = 0;  // of the starts that failed since the last that did not
};

// The absolute path of talvorn-locator.exe, which stands beside this program; empty when the
// system does not tell.
[[nodiscard]] std::u16string LocatorPath();

}  // namespace talvorn::service
