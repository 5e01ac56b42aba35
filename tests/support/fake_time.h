// The unit tests' replacement of time(): the real clock unless a test sets
// "now" (frozen_clock.cpp).
#ifndef DAXO_TEST_FAKE_TIME_H
#define DAXO_TEST_FAKE_TIME_H

#include <ctime>

namespace fake_time {

void SetNow(time_t now);
void UseRealClock();

// Sets now for its scope.
struct Scope {
  explicit Scope(time_t now) { SetNow(now); }
  ~Scope() { UseRealClock(); }
};

}  // namespace fake_time

#endif
