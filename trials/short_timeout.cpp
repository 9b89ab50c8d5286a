/// Linked in the place of select: makes a burner that waits half a second for an answer instead of
/// 30 seconds, and is the released program in all else.

#include <sys/select.h>

extern "C" {
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*);
}

int __wrap_select(int count, fd_set* to_read, fd_set* to_write, fd_set* others, timeval* limit) {
  // Only the limit on silence is that long.
  if (limit != nullptr && limit->tv_sec > 1) *limit = {.tv_sec = 0, .tv_usec = 500000};
  return __real_select(count, to_read, to_write, others, limit);
}
