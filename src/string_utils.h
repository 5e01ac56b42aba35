// Owned-string helpers. Every allocation goes through the C allocator so
// that a failure is a null result, never an exception.
#ifndef DAXO_STRING_UTILS_H
#define DAXO_STRING_UTILS_H

#include <cstddef>

#include "c_handles.h"
#include "daxo_client.h"

extern "C" {
// StrnDup copies at most n characters of s into a NUL-terminated heap block,
// or returns null when memory runs out.
DAXO_EXPORT char* StrnDup(const char* s, size_t n) noexcept;
}

namespace daxo {

// A heap copy of s (null for null s or when memory runs out).
char* Dup(const char* s) noexcept;

// printf into a heap string; null when formatting or allocation fails.
CStr Format(const char* fmt, ...) noexcept __attribute__((format(printf, 1, 2)));

// Replaces *slot with value, releasing the old text.
void Reset(char** slot, char* value) noexcept;

// Overwrites secret text (key material) before releasing it; accepts null.
void FreeSecret(char* secret) noexcept;

// Owned key text, wiped when released.
using SecretStr = std::unique_ptr<char, CFree<FreeSecret>>;

}  // namespace daxo

#endif
