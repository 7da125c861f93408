#include "platform/thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/fault_injection.h"

namespace talvorn::platform {
namespace {

constexpr std::size_t kLongestName = 15;

}  // namespace

struct Thread::State {
  ~State() {
    if (thread.joinable()) thread.detach();
  }

  std::thread thread;
  std::shared_future<std::uint32_t> id;
  std::future<void> end;
};

Thread Thread::Start(const char* name, Procedure procedure) {
  if (FaultHits(Fault::kThreadStart)) return {};
  auto state = std::make_shared<State>();
  std::promise<std::uint32_t> id;
  std::promise<void> end;
  state->id = id.get_future();
  state->end = end.get_future();
  auto run = [id = std::move(id), end = std::move(end), procedure = std::move(procedure),
              shown = std::string(name).substr(0, kLongestName)]() mutable {
    pthread_setname_np(pthread_self(), shown.c_str());
    id.set_value(static_cast<std::uint32_t>(gettid()));
    try {
      procedure();
    } catch (...) {
      // Procedures handle their failures; one that does not ends its own thread only.
    }
    // What the procedure owns goes before anybody learns of the end.
    procedure = nullptr;
    end.set_value();
  };
  // Signals are for the threads that were there before.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  try {
    state->thread = std::thread(std::move(run));
  } catch (const std::system_error&) {
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return state->thread.joinable() ? Thread(std::move(state)) : Thread();
}

std::uint32_t Thread::id() const { return state_ ? state_->id.get() : 0; }

std::uint32_t Thread::handleValue() const { return id(); }

bool Thread::JoinFor(WaitLimit limit) {
  if (!state_) return true;
  const auto state = std::exchange(state_, nullptr);
  if (limit && state->end.wait_for(std::chrono::milliseconds(*limit)) != std::future_status::ready)
    return false;
  state->thread.join();
  return true;
}

void SleepMs(std::uint32_t milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace talvorn::platform
