// Allocation-failure injection: an armed Scope makes the n-th allocation
// (from 0) of the current thread fail with ENOMEM; other threads never.
#ifndef DAXO_TEST_ALLOC_FAILURE_H
#define DAXO_TEST_ALLOC_FAILURE_H

#include <cstdio>
#include <cstdlib>

namespace alloc_failure {

// Far above what any operation allocates (a provisioning, a few thousand):
// a call still failing after this many never stops allocating, and the
// loop would run until the test runner's own limit.
inline constexpr long kMaxAllocations = 100000;

class Scope {
 public:
  explicit Scope(long failAt);
  ~Scope();
  bool Fired() const;
};

// Lets the test's own bookkeeping (a callback recording what it saw)
// allocate inside an armed Scope without being counted or failed.
class Suspend {
 public:
  Suspend();
  ~Suspend();

 private:
  long saved_;
};

// Runs setup() unarmed, then call() with allocation n = 0, 1, ... failing,
// then check(result, n, fired) unarmed, until nothing failed. Returns that n.
template <class Setup, class Call, class Check>
long ForEachAllocationFailure(Setup setup, Call call, Check check) {
  for (long n = 0;; ++n) {
    if (n == kMaxAllocations) {
      std::fprintf(stderr, "ForEachAllocationFailure: still failing after %ld allocations\n", n);
      std::abort();
    }
    setup();
    bool fired;
    auto result = [&] {
      Scope scope(n);
      auto r = call();
      fired = scope.Fired();
      return r;
    }();
    check(result, n, fired);
    if (!fired) return n;
  }
}

template <class Call, class Check>
long ForEachAllocationFailure(Call call, Check check) {
  return ForEachAllocationFailure([] {}, call, check);
}

}  // namespace alloc_failure

#endif
