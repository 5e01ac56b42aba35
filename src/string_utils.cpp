#include "string_utils.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

extern "C" char* StrnDup(const char* s, size_t n) noexcept {
  if (s == nullptr) return nullptr;
  size_t len = strnlen(s, n);
  auto* copy = static_cast<char*>(malloc(len + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, s, len);
  copy[len] = '\0';
  return copy;
}

namespace daxo {

char* Dup(const char* s) noexcept { return s == nullptr ? nullptr : StrnDup(s, strlen(s)); }

CStr Format(const char* fmt, ...) noexcept {
  va_list args;
  va_start(args, fmt);
  char* out = nullptr;
  int n = vasprintf(&out, fmt, args);
  va_end(args);
  // vasprintf leaves the pointer undefined on failure.
  return CStr(n < 0 ? nullptr : out);
}

void Reset(char** slot, char* value) noexcept {
  free(*slot);
  *slot = value;
}

void FreeSecret(char* secret) noexcept {
  if (secret == nullptr) return;
  OPENSSL_cleanse(secret, strlen(secret));
  free(secret);
}

}  // namespace daxo
