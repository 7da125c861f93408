#include "platform/posix/forms/memory_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/posix/io.h"

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

namespace talvorn::platform {
namespace {

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

}  // namespace

std::size_t SizeOf(MessageParts parts) {
  std::size_t size = 0;
  for (const auto part : parts) size += part.size();
  return size;
}

Descriptor MakeMemoryFile(MessageParts content) {
  constexpr const char* kName = "talvorn-message";
  constexpr unsigned int kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  Descriptor file(memfd_create(kName, kFlags | MFD_NOEXEC_SEAL));
  // Kernels before 6.3 do not know that flag.
  if (!file.valid()) file = Descriptor(memfd_create(kName, kFlags));
  if (!file.valid()) return {};
  for (const auto part : content) {
    if (!WriteAll(file.get(), {reinterpret_cast<const char*>(part.data()), part.size()})) return {};
  }
  if (fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) return {};
  return file;
}

std::optional<Message> MapMemoryFile(int fd, std::size_t largest) {
  struct stat status {};
  const int seals = fcntl(fd, F_GET_SEALS);
  if (seals < 0 || (seals & kSeals) != kSeals || fstat(fd, &status) != 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) return Message();
  void* const mapped = size > largest
                           ? MAP_FAILED
                           : mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  if (mapped == MAP_FAILED) return std::nullopt;
  return Message(std::shared_ptr<void>(mapped, [size](void* at) { (void)munmap(at, size); }),
                 {static_cast<const std::byte*>(mapped), size});
}

bool HoldsContent(int fd, MessageParts content) {
  const std::size_t size = SizeOf(content);
  const auto file = MapMemoryFile(fd, size);
  if (!file || file->bytes().size() != size) return false;
  std::span<const std::byte> rest = file->bytes();
  return std::ranges::all_of(content, [&rest](std::span<const std::byte> part) {
    const auto own = rest.first(part.size());
    rest = rest.subspan(part.size());
    return part.empty() || std::memcmp(own.data(), part.data(), part.size()) == 0;
  });
}

}  // namespace talvorn::platform
