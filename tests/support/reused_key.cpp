// Interposes on libcrypto's key generation, as alloc_failure.cpp does on
// malloc: the library's call resolves to this definition first.
#include "reused_key.h"

#include <dlfcn.h>
#include <openssl/evp.h>

#include "alloc_failure.h"

namespace {
__thread int reusing;
}

extern "C" int EVP_PKEY_generate(EVP_PKEY_CTX* ctx, EVP_PKEY** key) {
  using Generate = int (*)(EVP_PKEY_CTX*, EVP_PKEY**);
  static auto real = reinterpret_cast<Generate>(dlsym(RTLD_NEXT, "EVP_PKEY_generate"));
  if (!reusing) return real(ctx, key);
  static EVP_PKEY* kept = [&] {
    alloc_failure::Suspend unarmed;  // made once, outside every count
    EVP_PKEY* made = nullptr;
    return real(ctx, &made) > 0 ? made : nullptr;
  }();
  if (kept == nullptr || EVP_PKEY_up_ref(kept) != 1) return 0;
  *key = kept;
  return 1;
}

reused_key::Scope::Scope() { ++reusing; }
reused_key::Scope::~Scope() { --reusing; }
