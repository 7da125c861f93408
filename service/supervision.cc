#include "service/supervision.h"

#include <algorithm>
#include <utility>

namespace talvorn::service {

std::uint32_t RestartPause::After(std::uint64_t livedMs) {
  if (livedMs >= kLongLifeMs) nextMs_ = kShortestMs;
  return std::exchange(nextMs_, std::min(2 * nextMs_, kLongestMs));
}

void Supervise(Supervised& program) {
  RestartPause pause;
  for (;;) {
    std::uint64_t livedMs = 0;
    if (program.Start()) {
      const std::uint64_t startedMs = program.NowMs();
      if (!program.WaitForEnd()) return;
      livedMs = program.NowMs() - startedMs;
    }
    if (!program.PauseBeforeStart(pause.After(livedMs))) return;
  }
}

}  // namespace talvorn::service
