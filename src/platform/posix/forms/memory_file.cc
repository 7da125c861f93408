#include "platform/posix/forms/memory_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

namespace talvorn::platform {
namespace {

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

}  // namespace

Descriptor MakeMemoryFile(std::span<const std::byte> content) {
  constexpr const char* kName = "talvorn-message";
  constexpr unsigned int kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  Descriptor file(memfd_create(kName, kFlags | MFD_NOEXEC_SEAL));
  // Kernels before 6.3 do not know that flag.
  if (!file.valid()) file = Descriptor(memfd_create(kName, kFlags));
  if (!file.valid()) return {};
  while (!content.empty()) {
    const ssize_t written = write(file.get(), content.data(), content.size());
    if (written < 0 && errno != EINTR) return {};
    if (written > 0) content = content.subspan(static_cast<std::size_t>(written));
  }
  if (fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) return {};
  return file;
}

std::optional<std::size_t> SealedSize(int fd) {
  struct stat status {};
  const int seals = fcntl(fd, F_GET_SEALS);
  if (seals < 0 || (seals & kSeals) != kSeals || fstat(fd, &status) != 0) return std::nullopt;
  return static_cast<std::size_t>(status.st_size);
}

bool HoldsContent(int fd, std::span<const std::byte> content) {
  if (SealedSize(fd) != content.size()) return false;
  if (content.empty()) return true;
  void* const mapped = mmap(nullptr, content.size(), PROT_READ, MAP_PRIVATE, fd, 0);
  if (mapped == MAP_FAILED) return false;
  const bool same = std::memcmp(mapped, content.data(), content.size()) == 0;
  (void)munmap(mapped, content.size());
  return same;
}

bool ReadMemoryFile(int fd, std::span<std::byte> buffer) {
  off_t offset = 0;
  while (!buffer.empty()) {
    const ssize_t got = pread(fd, buffer.data(), buffer.size(), offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    buffer = buffer.subspan(static_cast<std::size_t>(got));
    offset += got;
  }
  return true;
}

}  // namespace talvorn::platform
