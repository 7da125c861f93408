// Debugger output is an exception that a debugger takes; here a handler of the process
// comes before it.
#include "testing/trace_capture.h"

#include <mutex>
#include <string_view>

#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::testing {
namespace {

constexpr DWORD kNarrowOutput = 0x40010006;
constexpr DWORD kWideOutput = 0x4001000A;

std::mutex capturedMutex;
std::string captured;
void* handler = nullptr;

LONG CALLBACK OnException(EXCEPTION_POINTERS* pointers) {
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  if ((record.ExceptionCode != kNarrowOutput && record.ExceptionCode != kWideOutput) ||
      record.NumberParameters < 2 || record.ExceptionInformation[0] == 0) {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  // The first parameter counts the terminator.
  const std::size_t size = record.ExceptionInformation[0] - 1;
  const std::lock_guard lock(capturedMutex);
  if (record.ExceptionCode == kWideOutput) {
    const auto* text = reinterpret_cast<const wchar_t*>(record.ExceptionInformation[1]);
    captured += platform::WideToUtf8(platform::FromNative(text, size));
  } else {
    const auto* text = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
    captured += platform::WideToUtf8(platform::NarrowToWide({text, size}));
  }
  return EXCEPTION_CONTINUE_EXECUTION;
}

void EndCapture() {
  RemoveVectoredExceptionHandler(handler);
  handler = nullptr;
}

}  // namespace

TraceCapture::TraceCapture() {
  captured.clear();
  handler = AddVectoredExceptionHandler(1, &OnException);
}

TraceCapture::~TraceCapture() {
  if (capturing_) EndCapture();
}

std::string TraceCapture::Take() {
  capturing_ = false;
  EndCapture();
  const std::lock_guard lock(capturedMutex);
  return captured;
}

}  // namespace talvorn::testing
