// The malloc replacement behind alloc_failure.h. It forwards to the next
// definition in the lookup order (libc, or the sanitizer runtime, whose
// leak and race checks therefore still see every block).
#include "alloc_failure.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>

namespace {

void* (*realMalloc)(size_t);
void* (*realCalloc)(size_t, size_t);
void* (*realRealloc)(void*, size_t);
void (*realFree)(void*);

// dlsym may allocate while the real functions are being looked up.
alignas(16) char bootstrap[8192];
size_t bootstrapUsed;

__thread long failAt = -1, seen;
__thread bool resolving, fired;

void* BootstrapAlloc(size_t n) {
  n = (n + 15) & ~size_t{15};
  if (bootstrapUsed + n > sizeof bootstrap) return nullptr;
  bootstrapUsed += n;
  return bootstrap + bootstrapUsed - n;  // static storage: already zero
}

bool Resolve() {
  if (realFree != nullptr || resolving) return realFree != nullptr;
  resolving = true;
  realMalloc = reinterpret_cast<decltype(realMalloc)>(dlsym(RTLD_NEXT, "malloc"));
  realCalloc = reinterpret_cast<decltype(realCalloc)>(dlsym(RTLD_NEXT, "calloc"));
  realRealloc = reinterpret_cast<decltype(realRealloc)>(dlsym(RTLD_NEXT, "realloc"));
  realFree = reinterpret_cast<decltype(realFree)>(dlsym(RTLD_NEXT, "free"));
  resolving = false;
  return true;
}

bool Inject() {
  if (failAt < 0 || seen++ != failAt) return false;
  fired = true;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

void* malloc(size_t n) {
  return !Resolve() ? BootstrapAlloc(n) : Inject() ? nullptr : realMalloc(n);
}

void* calloc(size_t count, size_t n) {
  return !Resolve() ? BootstrapAlloc(count * n) : Inject() ? nullptr : realCalloc(count, n);
}

void* realloc(void* p, size_t n) { return !Resolve() || Inject() ? nullptr : realRealloc(p, n); }

void free(void* p) {
  bool inBootstrap = p >= bootstrap && p < bootstrap + sizeof bootstrap;
  if (p != nullptr && !inBootstrap && Resolve()) realFree(p);
}

}  // extern "C"

alloc_failure::Scope::Scope(long n) {
  seen = 0;
  fired = false;
  failAt = n;
}
alloc_failure::Scope::~Scope() { failAt = -1; }
bool alloc_failure::Scope::Fired() const { return fired; }
alloc_failure::Suspend::Suspend() : saved_(failAt) { failAt = -1; }
alloc_failure::Suspend::~Suspend() { failAt = saved_; }
