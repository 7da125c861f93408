#include "platform/digest.h"

#include <limits>

#include "platform/fault_injection.h"
#include "platform/win32/handle.h"

// Behind the header that sets the switches.
#include <wincrypt.h>

namespace talvorn::platform {
namespace {

struct HashPolicy {
  using Native = HCRYPTHASH;
  static Native None() { return 0; }
  static void Close(Native hash) { CryptDestroyHash(hash); }
};
using HashHandle = Handle<HashPolicy>;

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
  HashHandle hash;
  if (CryptCreateHash(Provider(handle_), CALG_SHA1, 0, 0, hash.Receive()) == FALSE) return false;
  // No data is nothing to add, not a null pointer to complain about.
  if (!data.empty() && CryptHashData(hash.get(), reinterpret_cast<const BYTE*>(data.data()),
                                     static_cast<DWORD>(data.size()), 0) == FALSE) {
    return false;
  }
  DWORD size = 0;
  DWORD sizeOfSize = sizeof(size);
  if (CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeOfSize, 0) ==
          FALSE ||
      size != kSha1Size) {
    return false;
  }
  Sha1Digest result{};
  if (CryptGetHashParam(hash.get(), HP_HASHVAL, reinterpret_cast<BYTE*>(result.data()), &size, 0) ==
      FALSE) {
    return false;
  }
  digest = result;
  return true;
}

}  // namespace talvorn::platform
