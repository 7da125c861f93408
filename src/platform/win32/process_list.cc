#include "platform/process_list.h"

#include <algorithm>
#include <cstddef>

#include "platform/text_encoding.h"
#include "platform/win32/handle.h"
#include "platform/win32/system_function.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// Behind the program's name, which is in quotation marks or ends at a blank.
std::u16string WithoutProgram(std::u16string_view line) {
  const bool quoted = line.starts_with(u'"');
  const std::size_t end = line.find(quoted ? u'"' : u' ', 1);
  line.remove_prefix(std::min(end, line.size()));
  if (quoted && !line.empty()) line.remove_prefix(1);
  line.remove_prefix(std::min(line.find_first_not_of(u" \t"), line.size()));
  return std::u16string(line);
}

// Since Windows 8.1.
std::optional<std::u16string> CommandLineOf(DWORD processId) {
  constexpr auto kProcessCommandLineInformation = static_cast<PROCESSINFOCLASS>(60);
  using Query = NTSTATUS(NTAPI*)(HANDLE, PROCESSINFOCLASS, void*, ULONG, ULONG*);
  const auto query = SystemFunction<Query>(L"ntdll.dll", "NtQueryInformationProcess");
  const KernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (query == nullptr || !process.valid()) return std::nullopt;
  ULONG size = 0;
  (void)query(process.get(), kProcessCommandLineInformation, nullptr, 0, &size);
  std::vector<std::byte> buffer(size);
  if (size < sizeof(UNICODE_STRING) ||
      query(process.get(), kProcessCommandLineInformation, buffer.data(), size, &size) < 0)
    return std::nullopt;
  const auto& line = *reinterpret_cast<const UNICODE_STRING*>(buffer.data());
  return WithoutProgram(FromNative(line.Buffer, line.Length / sizeof(wchar_t)));
}

}  // namespace

std::vector<RunningProgram> RunningPrograms(std::string_view program) {
  const std::u16string file = Utf8ToWide(program) + u".exe";
  const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  std::vector<RunningProgram> running;
  for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != FALSE;
       more = Process32NextW(snapshot.get(), &entry)) {
    if (lstrcmpiW(entry.szExeFile, ToNative(file)) == 0)
      running.push_back({entry.th32ProcessID, CommandLineOf(entry.th32ProcessID)});
  }
  return running;
}

}  // namespace talvorn::platform
