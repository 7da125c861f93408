#include "platform/thread.h"

#include <process.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wait.h"

namespace talvorn::platform {
namespace {

constexpr std::size_t kLongestName = 15;

struct StartParameter {
  Thread::Procedure procedure;
  std::array<wchar_t, kLongestName + 1> name{};
};

// Debuggers and dumps show it, since Windows 10.
void NameThisThread(const wchar_t* name) {
  using Function = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const auto setDescription =
      SystemFunction<Function>(L"kernel32.dll", "SetThreadDescription");
  if (setDescription != nullptr) (void)setDescription(GetCurrentThread(), name);
}

unsigned __stdcall Run(void* argument) noexcept {
  // What the procedure owns goes with the parameter, before the thread has ended.
  const std::unique_ptr<StartParameter> parameter(static_cast<StartParameter*>(argument));
  NameThisThread(parameter->name.data());
  try {
    return parameter->procedure();
  } catch (...) {
    // The procedures handle their failures; what still gets here ends this thread
    // and no other.
    return 0;
  }
}

}  // namespace

struct Thread::State {
  KernelHandle handle;
  std::uint32_t id = 0;
};

Thread Thread::Start(const char* name, Procedure procedure) {
  if (FaultHits(Fault::kThreadStart)) return {};
  auto state = std::make_shared<State>();
  auto parameter = std::make_unique<StartParameter>();
  parameter->procedure = std::move(procedure);
  std::ranges::copy(std::string_view(name).substr(0, kLongestName), parameter->name.begin());
  unsigned id = 0;
  // Not CreateThread: the run-time library has something to set up as well.
  state->handle = KernelHandle(
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Run, parameter.get(), 0, &id)));
  if (!state->handle.valid()) return {};
  (void)parameter.release();  // the thread's now
  state->id = id;
  return Thread(std::move(state));
}

std::uint32_t Thread::id() const { return state_ ? state_->id : 0; }

std::uint32_t Thread::handleValue() const {
  if (!state_) return 0;
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(state_->handle.get()));
}

bool Thread::JoinFor(WaitLimit limit) {
  if (!state_) return true;
  const auto state = std::exchange(state_, nullptr);
  return WaitList(state->handle.get()).Wait(limit) == WaitStatus::kSignalled;
}

void SleepMs(std::uint32_t milliseconds) { Sleep(NativeLimit(milliseconds)); }

}  // namespace talvorn::platform
