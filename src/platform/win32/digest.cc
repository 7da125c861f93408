#include "platform/digest.h"

#include <limits>

#include "platform/fault_injection.h"
#include "platform/win32/handle.h"

// Behind the header that sets the switches.
#include <wincrypt.h>

namespace talvorn::platform {
namespace {

HCRYPTPROV Provider(void* handle) { return reinterpret_cast<HCRYPTPROV>(handle); }

}  // namespace

DigestProvider::DigestProvider() {
  if (FaultHits(Fault::kDigest)) return;
  HCRYPTPROV provider = 0;
  if (CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL,
                           CRYPT_VERIFYCONTEXT | CRYPT_MACHINE_KEYSET) != FALSE) {
    handle_ = reinterpret_cast<void*>(provider);
  }
}

DigestProvider::~DigestProvider() {
  if (handle_ != nullptr) CryptReleaseContext(Provider(handle_), 0);
}

bool DigestProvider::Sha1(std::span<const std::byte> data, Sha1Digest& digest) const {
  if (handle_ == nullptr || data.size() > std::numeric_limits<DWORD>::max()) return false;
  Handle<HCRYPTHASH, CryptDestroyHash> hash;
  Sha1Digest result{};
  DWORD size = 0;
  DWORD sizeOfSize = sizeof(size);
  // CryptHashData refuses the null pointer of empty data.
  const bool made =
      CryptCreateHash(Provider(handle_), CALG_SHA1, 0, 0, hash.Receive()) != FALSE &&
      (data.empty() || CryptHashData(hash.get(), reinterpret_cast<const BYTE*>(data.data()),
                                     static_cast<DWORD>(data.size()), 0) != FALSE) &&
      CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeOfSize, 0) !=
          FALSE &&
      size == kSha1Size &&
      CryptGetHashParam(hash.get(), HP_HASHVAL, reinterpret_cast<BYTE*>(result.data()), &size, 0) !=
          FALSE;
  if (made) digest = result;
  return made;
}

}  // namespace talvorn::platform
