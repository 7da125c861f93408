// The locator's main on Windows: a process without window and console.
#include <cwchar>
#include <new>

#include "platform/entry.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR commandLine, int) {
  // No dialogue asks for the disk that a path in the settings lies on.
  SetErrorMode(SEM_FAILCRITICALERRORS);
  try {
    return talvorn::LocatorMain(
        talvorn::platform::FromNative(commandLine, std::wcslen(commandLine)));
  } catch (const std::bad_alloc&) {
    return 1;
  }
}
