// Runs a program and prints its peak memory in KiB on standard error. Calls fork itself, and links
// nothing: ru_maxrss of a child includes the peak memory of the process that forked it, so that
// process must be small; and common::ChildProcess does not report ru_maxrss.
// Usage: bench_peak PROGRAM ARGUMENT...
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char* argv[]) {
  if (argc < 2) return EXIT_FAILURE;
  const pid_t pid = fork();
  if (pid == 0) {
    execv(argv[1], argv + 1);
    std::_Exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) < 0) return EXIT_FAILURE;
  std::fprintf(stderr, "%ld\n", usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}
