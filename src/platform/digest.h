// SHA-1 digests by the system's provider.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>

namespace talvorn::platform {

inline constexpr std::size_t kSha1Size = 20;
using Sha1Digest = std::array<std::byte, kSha1Size>;

class DigestProvider {
 public:
  // Acquires a provider context; valid() tells whether that succeeded.
  DigestProvider();
  ~DigestProvider();
  DigestProvider(const DigestProvider&) = delete;
  DigestProvider& operator=(const DigestProvider&) = delete;

  [[nodiscard]] bool valid() const { return handle_ != nullptr; }
  // False, with `digest` untouched, when a step of the hashing fails.
  [[nodiscard]] bool Sha1(std::span<const std::byte> data, Sha1Digest& digest) const;

 private:
  void* handle_ = nullptr;
};

}  // namespace talvorn::platform
