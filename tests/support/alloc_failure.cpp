// The malloc replacement behind alloc_failure.h. It forwards to the next
// definition in the lookup order (libc, or the sanitizer runtime, whose
// leak and race checks therefore still see every block).
#include "alloc_failure.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace {

using MallocFn = void* (*)(size_t);
using CallocFn = void* (*)(size_t, size_t);
using ReallocFn = void* (*)(void*, size_t);
using FreeFn = void (*)(void*);

MallocFn realMalloc;
CallocFn realCalloc;
ReallocFn realRealloc;
FreeFn realFree;

// dlsym may allocate while the real functions are being looked up.
alignas(16) char bootstrap[8192];
size_t bootstrapUsed;
__thread bool resolving;

__thread long failAt = -1;
__thread long seen;
__thread bool fired;

bool InBootstrap(void* p) {
  auto a = reinterpret_cast<uintptr_t>(p);
  auto b = reinterpret_cast<uintptr_t>(bootstrap);
  return a >= b && a < b + sizeof bootstrap;
}

void* BootstrapAlloc(size_t n) {
  n = (n + 15) & ~size_t{15};
  if (bootstrapUsed + n > sizeof bootstrap) return nullptr;
  void* p = bootstrap + bootstrapUsed;
  bootstrapUsed += n;
  return p;  // static storage: already zero
}

bool Resolve() {
  if (realFree != nullptr) return true;
  if (resolving) return false;
  resolving = true;
  realMalloc = reinterpret_cast<MallocFn>(dlsym(RTLD_NEXT, "malloc"));
  realCalloc = reinterpret_cast<CallocFn>(dlsym(RTLD_NEXT, "calloc"));
  realRealloc = reinterpret_cast<ReallocFn>(dlsym(RTLD_NEXT, "realloc"));
  realFree = reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "free"));
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
  if (!Resolve()) return BootstrapAlloc(n);
  return Inject() ? nullptr : realMalloc(n);
}

void* calloc(size_t count, size_t n) {
  if (!Resolve()) return BootstrapAlloc(count * n);
  return Inject() ? nullptr : realCalloc(count, n);
}

void* realloc(void* p, size_t n) {
  if (!Resolve()) return nullptr;
  return Inject() ? nullptr : realRealloc(p, n);
}

void free(void* p) {
  if (p == nullptr || InBootstrap(p)) return;
  if (Resolve()) realFree(p);
}

}  // extern "C"

namespace alloc_failure {

Scope::Scope(long n) {
  seen = 0;
  fired = false;
  failAt = n;
}

Scope::~Scope() { failAt = -1; }

bool Scope::Fired() const { return fired; }

}  // namespace alloc_failure
