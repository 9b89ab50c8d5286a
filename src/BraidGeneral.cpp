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

namespace {

using std::chrono::steady_clock;

steady_clock::time_point g_last_flush;
bool g_is_pending = false;

}  // namespace

void FlushConsoleSoon() {
  if (steady_clock::now() - g_last_flush < CONSOLE_DELAY) {
    g_is_pending = true;
  } else {
    FlushConsole();
  }
}

bool ConsoleIsPending() { return g_is_pending; }

void FlushConsole() {
  std::cout.flush();
  g_is_pending = false;
  g_last_flush = steady_clock::now();
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
