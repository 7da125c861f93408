#include "platform/thread.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

#include "platform/fault_injection.h"

namespace talvorn::platform {

// Shared by the handle and the thread itself, whichever lives longer.
struct Thread::State {
  Procedure procedure;
  std::string name;
  pthread_t handle{};

  std::mutex mutex;
  std::condition_variable changed;
  std::uint32_t id = 0;
  bool ended = false;

  static void* Run(void* parameter) noexcept {
    const std::unique_ptr<std::shared_ptr<State>> self(
        static_cast<std::shared_ptr<State>*>(parameter));
    State& state = **self;
    pthread_setname_np(pthread_self(), state.name.c_str());
    {
      const std::lock_guard lock(state.mutex);
      state.id = static_cast<std::uint32_t>(gettid());
    }
    state.changed.notify_all();
    try {
      state.procedure();
    } catch (...) {
      // The procedures handle their failures; what still gets here ends this
      // thread and no other.
    }
    // What the procedure owns goes before anybody learns of the end.
    state.procedure = nullptr;
    {
      const std::lock_guard lock(state.mutex);
      state.ended = true;
    }
    state.changed.notify_all();
    return nullptr;
  }
};

Thread::Thread() = default;
Thread::Thread(std::shared_ptr<State> state) : state_(std::move(state)) {}
Thread::Thread(Thread&& other) noexcept = default;

Thread::~Thread() {
  if (state_) pthread_detach(state_->handle);
}

Thread& Thread::operator=(Thread&& other) noexcept {
  std::swap(state_, other.state_);
  return *this;
}

Thread Thread::Start(const char* name, Procedure procedure) {
  constexpr std::size_t kLongestName = 15;
  if (FaultHits(Fault::kThreadStart)) return {};
  auto state = std::make_shared<State>();
  state->procedure = std::move(procedure);
  state->name.assign(name).resize(std::min(state->name.size(), kLongestName));
  auto parameter = std::make_unique<std::shared_ptr<State>>(state);
  if (pthread_create(&state->handle, nullptr, &State::Run, parameter.get()) != 0) return {};
  (void)parameter.release();  // the thread's now
  return Thread(std::move(state));
}

std::uint32_t Thread::id() const {
  if (!state_) return 0;
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [this] { return state_->id != 0; });
  return state_->id;
}

std::uint32_t Thread::handleValue() const { return id(); }

bool Thread::Join() {
  if (!state_) return true;
  const bool ended = pthread_join(state_->handle, nullptr) == 0;
  state_.reset();
  return ended;
}

bool Thread::JoinFor(std::uint32_t milliseconds) {
  if (!state_) return true;
  bool ended = false;
  {
    std::unique_lock lock(state_->mutex);
    ended = state_->changed.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                     [this] { return state_->ended; });
  }
  if (ended) return Join();
  pthread_detach(state_->handle);
  state_.reset();
  return false;
}

void SleepMs(std::uint32_t milliseconds) {
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += milliseconds / 1000;
  until.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (until.tv_nsec >= 1'000'000'000) {
    until.tv_nsec -= 1'000'000'000;
    ++until.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

}  // namespace talvorn::platform
