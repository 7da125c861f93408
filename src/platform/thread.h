// Threads with the numeric id and handle value that reports and traces show.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace talvorn::platform {

class Thread {
 public:
  using Procedure = std::function<std::uint32_t()>;

  // No thread.
  Thread();
  // Closes the handle without waiting; the thread runs on.
  ~Thread();
  Thread(Thread&& other) noexcept;
  Thread& operator=(Thread&& other) noexcept;

  // Starts `procedure` with the default stack; no thread when that fails.
  // `name` (at most 15 characters) is what process listings show.
  [[nodiscard]] static Thread Start(const char* name, Procedure procedure);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // The system's thread id; 0 for no thread.
  [[nodiscard]] std::uint32_t id() const;

  // The handle as traces show it; 0 for no thread.
  [[nodiscard]] std::uint32_t handleValue() const;

  // Waits for the end of the thread and closes the handle. True when the thread
  // has ended, also for no thread.
  bool Join();

  // As Join(), but closes the handle after `milliseconds` even if the thread
  // still runs (false then).
  bool JoinFor(std::uint32_t milliseconds);

 private:
  struct State;
  explicit Thread(std::shared_ptr<State> state);

  std::shared_ptr<State> state_;
};

// Blocks the calling thread.
void SleepMs(std::uint32_t milliseconds);

}  // namespace talvorn::platform
