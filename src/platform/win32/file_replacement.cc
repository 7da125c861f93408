#include "platform/file_replacement.h"

#include <string>

#include "platform/clock.h"
#include "platform/process.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// Who reads the old file may keep it from being replaced for as long as that takes.
constexpr std::uint64_t kReaderMs = 2'000;
constexpr std::uint32_t kRetryMs = 10;

std::error_code LastError() { return {static_cast<int>(GetLastError()), std::system_category()}; }

std::error_code WriteNew(const std::u16string& path, std::string_view content) {
  const FileHandle file(CreateFileW(ToNative(path), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.valid()) return LastError();
  DWORD written = 0;
  const auto size = static_cast<DWORD>(content.size());
  if (!WriteFile(file.get(), content.data(), size, &written, nullptr)) return LastError();
  if (written != size) return {ERROR_DISK_FULL, std::system_category()};
  return FlushFileBuffers(file.get()) ? std::error_code() : LastError();
}

std::error_code Rename(const std::u16string& from, const std::u16string& to) {
  constexpr DWORD kHow = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
  const std::uint64_t start = MonotonicMs();
  while (!MoveFileExW(ToNative(from), ToNative(to), kHow)) {
    const std::error_code error = LastError();
    const bool inUse =
        error.value() == ERROR_SHARING_VIOLATION || error.value() == ERROR_ACCESS_DENIED;
    if (!inUse || MonotonicMs() - start >= kReaderMs) return error;
    SleepMs(kRetryMs);
  }
  return {};
}

}  // namespace

std::error_code ReplaceFileContent(std::string_view path, std::string_view content) {
  const std::u16string target = Utf8ToWide(path);
  const DWORD there = GetFileAttributesW(ToNative(target));
  if (there != INVALID_FILE_ATTRIBUTES && (there & FILE_ATTRIBUTE_DIRECTORY) != 0)
    return std::make_error_code(std::errc::is_a_directory);
  const std::string number = std::to_string(CurrentProcessId()) + std::to_string(MonotonicMs());
  const std::u16string beside = target + Utf8ToWide("." + number + ".tmp");
  std::error_code error = WriteNew(beside, content);
  if (!error) error = Rename(beside, target);
  if (error) (void)DeleteFileW(ToNative(beside));
  return error;
}

}  // namespace talvorn::platform
