#include "platform/digest.h"

#include <openssl/evp.h>

#include <algorithm>

#include "platform/fault_injection.h"

namespace talvorn::platform {
namespace {

// Looking an algorithm up takes longer than most digests.
const EVP_MD* Sha1Algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return algorithm;
}

EVP_MD_CTX* Context(void* handle) { return static_cast<EVP_MD_CTX*>(handle); }

}  // namespace

DigestProvider::DigestProvider() {
  if (FaultHits(Fault::kDigest) || Sha1Algorithm() == nullptr) return;
  handle_ = EVP_MD_CTX_new();
}

DigestProvider::~DigestProvider() { EVP_MD_CTX_free(Context(handle_)); }

bool DigestProvider::Sha1(std::span<const std::byte> data, Sha1Digest& digest) const {
  if (handle_ == nullptr) return false;
  std::array<unsigned char, EVP_MAX_MD_SIZE> result{};
  unsigned int size = 0;
  if (EVP_DigestInit_ex2(Context(handle_), Sha1Algorithm(), nullptr) != 1 ||
      EVP_DigestUpdate(Context(handle_), data.data(), data.size()) != 1 ||
      EVP_DigestFinal_ex(Context(handle_), result.data(), &size) != 1 || size != kSha1Size) {
    return false;
  }
  std::transform(result.begin(), result.begin() + kSha1Size, digest.begin(),
                 [](unsigned char byte) { return std::byte{byte}; });
  return true;
}

}  // namespace talvorn::platform
