#include "platform/process_list.h"

#include <string>

#include "platform/text_encoding.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {

std::size_t CountProcesses(std::string_view program) {
  const std::u16string file = Utf8ToWide(program) + u".exe";
  const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  std::size_t count = 0;
  for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != FALSE;
       more = Process32NextW(snapshot.get(), &entry)) {
    if (lstrcmpiW(entry.szExeFile, ToNative(file)) == 0) ++count;
  }
  return count;
}

}  // namespace talvorn::platform
