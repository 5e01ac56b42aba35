// Allocation-failure injection: an armed Scope makes the n-th allocation
// (from 0) of the current thread fail with ENOMEM; other threads never.
#ifndef DAXO_TEST_ALLOC_FAILURE_H
#define DAXO_TEST_ALLOC_FAILURE_H

namespace alloc_failure {

class Scope {
 public:
  explicit Scope(long failAt);
  ~Scope();
  bool Fired() const;
};

// Runs call() with allocation n = 0, 1, ... failing and check(result, n,
// fired) unarmed, until nothing failed. Returns that n.
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
