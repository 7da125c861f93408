#include "devices/item_hash.h"

namespace talvorn {
namespace {

// Three FNV-1a hashes from different starting points, 20 bytes of them.
platform::Sha1Digest FallbackDigest(std::span<const std::byte> data) {
  constexpr std::uint64_t kFnvOffset = 0xCBF29CE484222325;
  constexpr std::uint64_t kFnvPrime = 0x100000001B3;
  platform::Sha1Digest digest{};
  std::uint64_t hash = 0;
  for (std::size_t i = 0; i < digest.size(); ++i) {
    if (i % sizeof(hash) == 0) {
      hash = kFnvOffset + i;
      for (const std::byte b : data) hash = (hash ^ std::to_integer<std::uint64_t>(b)) * kFnvPrime;
    }
    digest[i] = static_cast<std::byte>(hash >> (8 * (i % sizeof(hash))) & 0xFF);
  }
  return digest;
}

}  // namespace

void CHashItem::Compute(std::span<const std::byte> data) {
  if (acquired == 0 || !provider.Sha1(data, digest)) digest = FallbackDigest(data);
}

}  // namespace talvorn
