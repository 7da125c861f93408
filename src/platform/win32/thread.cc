#include "platform/thread.h"

#include <process.h>

#include <string>
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
  std::wstring name;
};

// For debuggers and dumps, since Windows 10.
void NameThisThread(const wchar_t* name) {
  using Function = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const auto setDescription =
      SystemFunction<Function>(L"kernel32.dll", "SetThreadDescription");
  if (setDescription != nullptr) (void)setDescription(GetCurrentThread(), name);
}

unsigned __stdcall Run(void* argument) noexcept {
  // Frees what the procedure owns before the thread has ended.
  const std::unique_ptr<StartParameter> parameter(static_cast<StartParameter*>(argument));
  NameThisThread(parameter->name.c_str());
  try {
    return parameter->procedure();
  } catch (...) {
    return 0;  // ends this thread only
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
  const std::string_view shown = std::string_view(name).substr(0, kLongestName);
  auto parameter = std::make_unique<StartParameter>(std::move(procedure),
                                                    std::wstring(shown.begin(), shown.end()));
  unsigned id = 0;
  // Not CreateThread: the C runtime must set up its own data for the thread.
  state->handle = KernelHandle(
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Run, parameter.get(), 0, &id)));
  if (!state->handle.valid()) return {};
  (void)parameter.release();  // Run owns it
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
