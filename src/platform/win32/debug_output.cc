// A debugger or viewer that has stopped reading blocks a writer for about ten seconds; the
// process cannot shorten that.
#include "platform/debug_output.h"

#include <string>

#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

void DebugOutputW(std::u16string_view text) { OutputDebugStringW(ToNative(std::u16string(text))); }

void DebugOutputA(std::string_view text) { OutputDebugStringA(std::string(text).c_str()); }

}  // namespace talvorn::platform
