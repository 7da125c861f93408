// Threads with the numeric id and handle value that reports and traces show.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "platform/waitable.h"

namespace talvorn::platform {

class Thread {
 public:
  using Procedure = std::function<std::uint32_t()>;

  // No thread. One that is let go without a join runs on.
  Thread() = default;
  Thread(Thread&& other) noexcept = default;
  Thread& operator=(Thread&& other) noexcept = default;

  // Starts `procedure` with the default stack; no thread when that fails.
  // `name` (at most 15 characters) is what process listings show.
  [[nodiscard]] static Thread Start(const char* name, Procedure procedure);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // The system's thread id; 0 for no thread.
  [[nodiscard]] std::uint32_t id() const;

  // The handle as traces show it; 0 for no thread.
  [[nodiscard]] std::uint32_t handleValue() const;

  // Waits for the end of the thread and lets it go; after the limit also when it still
  // runs (false then). True for no thread.
  bool Join() { return JoinFor(std::nullopt); }
  bool JoinFor(WaitLimit limit);

 private:
  struct State;
  explicit Thread(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

// Blocks the calling thread.
void SleepMs(std::uint32_t milliseconds);

}  // namespace talvorn::platform
