#include "platform/process.h"

#include <algorithm>
#include <array>

#include "platform/event.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// Whoever closes the window, or logs off, ends the process when its time is up; so
// long it may finish.
constexpr DWORD kCloseLimitMs = 30'000;

const Event& Interrupt() {
  // Never destroyed: the system calls from a thread of its own, up to the end.
  static const Event& interrupt = *new Event(Event::Create(Event::Mode::kManualReset));
  return interrupt;
}

BOOL WINAPI OnControl(DWORD type) {
  Interrupt().Set();
  // The return would end the process at once, but for Ctrl-C and Ctrl-Break.
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
  // Only a tool that looks takes over from the system; any other is ended by it.
  static const bool watching =
      Interrupt().valid() && SetConsoleCtrlHandler(&OnControl, TRUE) != FALSE;
  (void)watching;  // without it that stays so
  return Interrupt();
}

std::uint32_t CurrentProcessId() { return GetCurrentProcessId(); }

std::optional<std::string> TemporaryDirectory(std::size_t capacity) {
  std::array<char, MAX_PATH + 2> path{};
  const DWORD size = GetTempPathA(static_cast<DWORD>(path.size()), path.data());
  // More than there is room for is the room that it would take.
  if (size == 0 || size >= std::min(capacity, path.size())) return std::nullopt;
  return std::string(path.data(), size);
}

char PathSeparatorFor(std::string_view /*path*/) { return '\\'; }

std::string_view MeetingPlaceVariable() { return {}; }

}  // namespace talvorn::platform
