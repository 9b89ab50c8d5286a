#include "BraidGeneral.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

void ThrowError(const std::string& des, const char* file, u_int32_t line) {
  throw BraidError(des, BRAID_ERROR, std::string(UnitName(file)), line);
}

std::ostream& Debug(u_int32_t line, const char* file) {
  return std::cout << "-D- " << UnitName(file) << ":" << std::to_string(line) << ": ";
}

void ConsolePrintf(const char* format, ...) {
  std::cout.flush();
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
}

void AssertionFailed(const char* expression, const char* file, unsigned line,
                     const char* function) {
  std::cout.flush();
  std::fprintf(stderr, "fwpush: %s:%u: %s: Assertion `%s' failed.\n", file, line, function,
               expression);
  std::abort();
}
