// Preloaded into a daemon: its wall clock, and nobody else's, is so many seconds ahead as the file
// that IPSLA_CLOCK_STEP_FILE names says.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static long Offset(void) {
  static const char* name;
  if (name == NULL) name = getenv("IPSLA_CLOCK_STEP_FILE");
  if (name == NULL) return 0;
  const int fd = open(name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[32] = "";
  const ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  return length > 0 ? strtol(text, NULL, 10) : 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int result = (int)syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += Offset();
  return result;
}
