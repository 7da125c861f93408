#include "platform/console.h"

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "platform/text_encoding.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// Older systems take at most about 32 KiB per call.
constexpr std::size_t kConsoleChunk = 8'000;
constexpr std::size_t kFileChunk = 1 << 20;

// Standard output is a pipe whose reader has gone.
std::atomic<bool> outputBroken{false};

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }

bool WriteConsoleText(HANDLE console, std::u16string_view text) {
  while (!text.empty()) {
    std::size_t size = std::min(text.size(), kConsoleChunk);
    if (size < text.size() && IsHighSurrogate(text[size - 1])) --size;
    DWORD written = 0;
    if (WriteConsoleW(console, ToNative(text.data()), static_cast<DWORD>(size), &written,
                      nullptr) == FALSE ||
        written == 0) {
      return false;
    }
    text.remove_prefix(std::min<std::size_t>(written, text.size()));
  }
  return true;
}

bool WriteFileText(HANDLE file, std::string_view text) {
  while (!text.empty()) {
    const auto size = static_cast<DWORD>(std::min(text.size(), kFileChunk));
    DWORD written = 0;
    if (WriteFile(file, text.data(), size, &written, nullptr) == FALSE) {
      const DWORD error = GetLastError();
      const bool noReader =
          error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED;
      if (noReader && file == GetStdHandle(STD_OUTPUT_HANDLE)) outputBroken = true;
      return false;
    }
    if (written == 0) return false;
    text.remove_prefix(std::min<std::size_t>(written, text.size()));
  }
  return true;
}

// A console gets UTF-16, whatever its code page; files and pipes get UTF-8.
bool WriteText(DWORD stream, std::string_view text) {
  const HANDLE handle = GetStdHandle(stream);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return false;
  DWORD mode = 0;
  if (GetConsoleMode(handle, &mode) == FALSE) return WriteFileText(handle, text);
  return WriteConsoleText(handle, Utf8ToWide(text));
}

// Asks for the state of our end, which needs no right to read the pipe.
bool PipeIsClosing(HANDLE pipe) {
  constexpr int kPipeLocalInformation = 24;
  constexpr std::size_t kState = 8;  // in FILE_PIPE_LOCAL_INFORMATION
  constexpr ULONG kConnected = 3;
  using Function = LONG(WINAPI*)(HANDLE, ULONG_PTR*, ULONG*, ULONG, int);
  static const auto query = SystemFunction<Function>(L"ntdll.dll", "NtQueryInformationFile");
  ULONG_PTR status[2] = {};
  ULONG information[10] = {};
  return query != nullptr &&
         query(pipe, status, information, sizeof(information), kPipeLocalInformation) >= 0 &&
         information[kState] != kConnected;
}

}  // namespace

bool WriteOutput(std::string_view text) { return WriteText(STD_OUTPUT_HANDLE, text); }
bool WriteError(std::string_view text) { return WriteText(STD_ERROR_HANDLE, text); }

bool OutputAbandoned() {
  if (outputBroken) return true;
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  return GetFileType(output) == FILE_TYPE_PIPE && PipeIsClosing(output);
}

// Switches the console's terminal sequences on; before Windows 10 there are none, and the
// console counts as a file.
bool OutputIsTerminal() {
  constexpr DWORD kTerminalSequences = 0x0004;
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  return GetConsoleMode(output, &mode) != FALSE &&
         ((mode & kTerminalSequences) != 0 ||
          SetConsoleMode(output, mode | kTerminalSequences) != FALSE);
}

std::optional<TerminalSize> OutputTerminalSize() {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) == FALSE) {
    return std::nullopt;
  }
  // The window, not the scroll buffer.
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  const int rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  if (columns <= 0 || rows <= 0) return std::nullopt;
  return TerminalSize{static_cast<std::uint32_t>(columns), static_cast<std::uint32_t>(rows)};
}

}  // namespace talvorn::platform
