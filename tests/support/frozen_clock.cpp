// Clocks of the unit tests. The library's connection supervision measures
// attempts on CLOCK_BOOTTIME; freezing that clock keeps it from restarting
// fake connections behind a test's back. time() is the real clock unless a
// test sets it, so that date arithmetic runs against a fixed "now".
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "fake_time.h"

namespace {
volatile time_t fixedNow = -1;
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* tp) {
  if (clock == CLOCK_BOOTTIME) {
    tp->tv_sec = 1000;
    tp->tv_nsec = 0;
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, tp));
}

extern "C" time_t time(time_t* out) {
  time_t now = fixedNow;
  if (now == -1) {
    struct timespec ts;
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &ts);
    now = ts.tv_sec;
  }
  if (out != nullptr) *out = now;
  return now;
}

namespace fake_time {
void SetNow(time_t now) { fixedNow = now; }
void UseRealClock() { fixedNow = -1; }
}  // namespace fake_time
