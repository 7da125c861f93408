// main of the command-line tools on Windows.
#include <cwchar>
#include <new>
#include <string>
#include <vector>

#include "platform/console.h"
#include "platform/process.h"
#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"

int wmain(int argc, wchar_t** argv) {
  using namespace talvorn::platform;
  try {
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
      arguments.push_back(WideToUtf8(FromNative(argv[i], std::wcslen(argv[i]))));
    }
    return talvorn::ToolMain(arguments);
  } catch (const std::bad_alloc&) {
    (void)WriteError("out of memory\n");
    return 1;
  }
}
