#include "tests/support/InjectedRead.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

std::function<int()> g_read_error;

// A header may define read itself, hence the name.
extern "C" ssize_t ReadHere(int fd, void* into, std::size_t room) asm("read");
ssize_t ReadHere(int fd, void* into, std::size_t room) {
  const int error = g_read_error ? g_read_error() : 0;
  if (error == 0) return syscall(SYS_read, fd, into, room);
  errno = error;
  return -1;
}
