#include "platform/process.h"

#include <algorithm>
#include <array>

#include "platform/event.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// How long the process may go on after the window was closed or the user logged off.
constexpr DWORD kCloseLimitMs = 30'000;

const Event& Interrupt() {
  // Never destroyed: Windows calls OnControl in a thread of its own until the end.
  static const Event& interrupt = *new Event(Event::Create(Event::Mode::kManualReset));
  return interrupt;
}

BOOL WINAPI OnControl(DWORD type) {
  Interrupt().Set();
  // For all but Ctrl-C and Ctrl-Break, Windows ends the process when this returns.
  if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT) Sleep(kCloseLimitMs);
  return TRUE;
}

}  // namespace

const Waitable& TerminationRequest() {
  static const Event never = Event::Create(Event::Mode::kManualReset);
  return never;
}

bool TerminationRequested() { return false; }

const Waitable& InterruptRequest() {
  // Only for a tool that asks; Windows ends any other on Ctrl-C.
  static const bool watching =
      Interrupt().valid() && SetConsoleCtrlHandler(&OnControl, TRUE) != FALSE;
  (void)watching;  // on failure Windows ends this one too
  return Interrupt();
}

void ReportReady() {}

std::uint32_t CurrentProcessId() { return GetCurrentProcessId(); }

std::optional<std::string> TemporaryDirectory(std::size_t capacity) {
  std::array<char, MAX_PATH + 2> path{};
  const DWORD size = GetTempPathA(static_cast<DWORD>(path.size()), path.data());
  // Without room the call returns the size needed.
  if (size == 0 || size >= std::min(capacity, path.size())) return std::nullopt;
  return std::string(path.data(), size);
}

char PathSeparatorFor(std::string_view /*path*/) { return '\\'; }

std::string_view MeetingPlaceVariable() { return {}; }

std::string MeetingPlaceObstacle() { return {}; }

}  // namespace talvorn::platform
