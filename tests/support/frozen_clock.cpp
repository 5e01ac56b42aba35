// Unit tests run the library over a fake transport whose connections never
// complete unless a test says so. The library's connection supervision
// measures attempts on CLOCK_BOOTTIME; freezing that clock here keeps it
// from restarting fake connections behind a test's back. Every other clock
// is the system's.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

extern "C" int clock_gettime(clockid_t clock, struct timespec* tp) {
  if (clock == CLOCK_BOOTTIME) {
    tp->tv_sec = 1000;
    tp->tv_nsec = 0;
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, tp));
}
