#include "platform/file_replacement.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"

namespace talvorn::platform {
namespace {

constexpr mode_t kReadableByAll = 0644;

std::error_code LastError() { return {errno, std::system_category()}; }

std::error_code WriteNew(const std::string& path, std::string_view content) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const Descriptor file(Retried([&] { return open(path.c_str(), kFlags, kReadableByAll); }));
  if (!file.valid()) return LastError();
  const bool written = WriteAll(file.get(), content) && fchmod(file.get(), kReadableByAll) == 0 &&
                       fsync(file.get()) == 0;
  return written ? std::error_code() : LastError();
}

}  // namespace

std::error_code ReplaceFileContent(std::string_view path, std::string_view content) {
  const std::string target(path);
  struct stat there {};
  if (stat(target.c_str(), &there) == 0 && !S_ISREG(there.st_mode))
    return std::make_error_code(S_ISDIR(there.st_mode) ? std::errc::is_a_directory
                                                       : std::errc::invalid_argument);
  const std::string beside = target + "." + std::to_string(RandomNumber()) + ".tmp";
  std::error_code error = WriteNew(beside, content);
  if (!error && rename(beside.c_str(), target.c_str()) != 0) error = LastError();
  if (error) (void)unlink(beside.c_str());
  return error;
}

}  // namespace talvorn::platform
