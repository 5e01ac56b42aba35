/* LD_PRELOAD=libdaxo_slow_writes.so: every write to a regular file waits
 * 50 ms first, as on loaded flash, so that a kill at a random moment lands
 * inside the identity's writes rather than beside them. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

ssize_t write(int fd, const void* buffer, size_t count) {
  static ssize_t (*next)(int, const void*, size_t);
  if (next == NULL) next = (ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write");
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    struct timespec pause = {0, 50 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
  return next(fd, buffer, count);
}
