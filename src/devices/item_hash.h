// SHA-1 digests that tell items apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/digest.h"

namespace talvorn {

class CHashSHA1 {
 public:
  CHashSHA1() { acquired = provider.valid() ? 1 : 0; }
  virtual ~CHashSHA1() = default;
  CHashSHA1(const CHashSHA1&) = delete;
  CHashSHA1& operator=(const CHashSHA1&) = delete;

 protected:
  std::uint32_t acquired = 0;
  platform::DigestProvider provider;
};

class CHashItem : public CHashSHA1 {
 public:
  platform::Sha1Digest digest{};

  // SHA-1 of `data`. Where the provider fails, a digest of another kind that tells
  // different items apart as well, so that the list goes on working.
  void Compute(std::span<const std::byte> data);
};

}  // namespace talvorn
