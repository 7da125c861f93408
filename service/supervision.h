// Keeps a program running: starts it, and again whenever it has ended. The pause before that
// grows while it does not live.
#pragma once

#include <cstdint>

namespace talvorn::service {

// The program, and who wants it to run. One thread calls all of this.
class Supervised {
 public:
  // False when it cannot be started.
  virtual bool Start() = 0;
  // Returns when the program has ended; false when it is to be stopped instead.
  virtual bool WaitForEnd() = 0;
  // Returns when the time has passed; false when the program is to be stopped instead.
  virtual bool PauseBeforeStart(std::uint32_t pauseMs) = 0;
  // Of a clock that is never set.
  virtual std::uint64_t NowMs() = 0;

 protected:
  ~Supervised() = default;
};

// The pauses between an end and the next start.
class RestartPause {
 public:
  static constexpr std::uint32_t kShortestMs = 1'000;
  static constexpr std::uint32_t kLongestMs = 60'000;
  // Who has lived for this long starts anew with the shortest pause.
  static constexpr std::uint64_t kLongLifeMs = 60'000;

  // The pause after a life of that length; 0 when the program could not be started.
  [[nodiscard]] std::uint32_t After(std::uint64_t livedMs);

 private:
  std::uint32_t nextMs_ = kShortestMs;
};

// Returns once the program is to be stopped.
void Supervise(Supervised& program);

}  // namespace talvorn::service
