// Clocks of the unit tests. Connection supervision measures attempts on
// CLOCK_BOOTTIME; freezing it keeps the library from restarting fake
// connections behind a test's back, unless a test over real network threads
// lets it run. time() stays real unless a test fixes it, so that date
// arithmetic runs against a known "now".
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "fake_time.h"

namespace {
volatile time_t fixedNow = -1;
std::atomic<bool> bootClockRuns{false};  // read by the library's threads
std::atomic<long long> bootAdvanceMs{0};
}  // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec* tp) {
  if (clock != CLOCK_BOOTTIME || bootClockRuns)
    return static_cast<int>(syscall(SYS_clock_gettime, clock, tp));
  long long ms = 1000000 + bootAdvanceMs.load();
  *tp = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  return 0;
}

extern "C" time_t time(time_t* out) {
  struct timespec ts {
    fixedNow, 0
  };
  if (ts.tv_sec == -1) syscall(SYS_clock_gettime, CLOCK_REALTIME, &ts);
  if (out != nullptr) *out = ts.tv_sec;
  return ts.tv_sec;
}

void fake_time::SetNow(time_t now) { fixedNow = now; }
void fake_time::RunBootClock(bool runs) { bootClockRuns = runs; }
void fake_time::AdvanceBootClock(long long ms) { bootAdvanceMs = ms; }
