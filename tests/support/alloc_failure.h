// Allocation-failure injection for tests. The test executable replaces
// malloc, calloc and realloc; an armed scope makes the n-th allocation of
// the current thread fail (errno ENOMEM), other threads are never touched.
#ifndef DAXO_TEST_ALLOC_FAILURE_H
#define DAXO_TEST_ALLOC_FAILURE_H

namespace alloc_failure {

class Scope {
 public:
  explicit Scope(long failAt);  // failAt counts from 0
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  bool Fired() const;
};

// Runs call() with allocation n failing, for n = 0, 1, ..., and hands its
// result to check(result, n, fired) outside the armed region, until a call
// during which no failure fired. Returns that last n (the number of
// allocations a successful call makes).
template <class Call, class Check>
long ForEachAllocationFailure(Call call, Check check) {
  for (long n = 0;; ++n) {
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

}  // namespace alloc_failure

#endif
