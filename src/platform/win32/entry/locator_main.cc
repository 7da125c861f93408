// The locator's main on Windows: a process without window and console.
#include <cwchar>
#include <exception>
#include <new>

#include "platform/process.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR commandLine, int) {
  // No dialogues, which nobody would see: not for a missing disk, a crash or terminate().
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  constexpr UINT kGivenUp = 3;  // as abort()
  std::set_terminate([] { TerminateProcess(GetCurrentProcess(), kGivenUp); });
  try {
    return talvorn::LocatorMain(
        talvorn::platform::FromNative(commandLine, std::wcslen(commandLine)));
  } catch (const std::bad_alloc&) {
    return 1;
  }
}
