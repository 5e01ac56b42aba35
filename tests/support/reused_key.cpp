// Interposes on libcrypto's key generation, as alloc_failure.cpp does on
// malloc: the library's call resolves to this definition first.
#include "reused_key.h"

#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "alloc_failure.h"

namespace {

__thread int reusing;

int RealGenerate(EVP_PKEY_CTX* ctx, EVP_PKEY** key) {
  using Generate = int (*)(EVP_PKEY_CTX*, EVP_PKEY**);
  static auto real = reinterpret_cast<Generate>(dlsym(RTLD_NEXT, "EVP_PKEY_generate"));
  return real(ctx, key);
}

// Made once, outside every count. Making it also sets up libcrypto's RSA
// machinery, whose lazy set-up crashes inside libcrypto when an allocation
// of it fails: the loops test the library, not that.
EVP_PKEY* Kept() {
  static EVP_PKEY* kept = [] {
    alloc_failure::Suspend unarmed;
    return EVP_RSA_gen(2048);
  }();
  return kept;
}

}  // namespace

extern "C" int EVP_PKEY_generate(EVP_PKEY_CTX* ctx, EVP_PKEY** key) {
  if (!reusing) return RealGenerate(ctx, key);
  EVP_PKEY* kept = Kept();
  if (kept == nullptr || EVP_PKEY_up_ref(kept) != 1) return 0;
  *key = kept;
  return 1;
}

reused_key::Scope::Scope() {
  Kept();
  ++reusing;
}
reused_key::Scope::~Scope() { --reusing; }
