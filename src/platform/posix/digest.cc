#include "platform/digest.h"

#include <nettle/sha1.h>

#include "platform/fault_injection.h"

namespace talvorn::platform {

// The library needs no context of its own; only a test takes the provider away.
DigestProvider::DigestProvider() : handle_(FaultHits(Fault::kDigest) ? nullptr : this) {}

DigestProvider::~DigestProvider() = default;

bool DigestProvider::Sha1(std::span<const std::byte> data, Sha1Digest& digest) const {
  if (handle_ == nullptr) return false;
  sha1_ctx context;
  sha1_init(&context);
  sha1_update(&context, data.size(), reinterpret_cast<const std::uint8_t*>(data.data()));
  sha1_digest(&context, digest.size(), reinterpret_cast<std::uint8_t*>(digest.data()));
  return true;
}

}  // namespace talvorn::platform
