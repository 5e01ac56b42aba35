// The unit tests' time() (frozen_clock.cpp): the real clock unless a test
// fixes "now".
#ifndef DAXO_TEST_FAKE_TIME_H
#define DAXO_TEST_FAKE_TIME_H

#include <ctime>

namespace fake_time {

void SetNow(time_t now);  // -1: the real clock again
// CLOCK_BOOTTIME is frozen unless a test lets it run.
void RunBootClock(bool runs);
// Moves the frozen CLOCK_BOOTTIME on; 0 puts it back.
void AdvanceBootClock(long long ms);

struct Scope {
  explicit Scope(time_t now) { SetNow(now); }
  ~Scope() { SetNow(-1); }
};

}  // namespace fake_time

#endif
