#include "common/Program.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "common/Text.h"

namespace common {

namespace {

/// Prints an error. Its text may contain bytes from a file or a server.
void Complain(const Program& program, const std::string& text) {
  std::string lines;
  for (const std::string_view line : Lines(text)) {
    lines += (lines.empty() ? "" : "\n") + Printable(line);
  }
  std::cerr << program.name << ": " << (program.is_verbatim ? text : lines) << std::endl;
}

/// Opens those of descriptors 0 to 2 that are closed. Else files and connections of the program
/// would get these numbers, and be written to as if they were the console.
void HoldStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    // The wrong way round: using it stays the error that using a closed one is.
    const int direction = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", direction) != fd) throw std::runtime_error("can't open /dev/null");
  }
}

}  // namespace

int RunProgram(const Program& program, CommandLine& line, int argc, char* argv[]) {
  try {
    HoldStandardDescriptors();
    const CommandLine::Parsed parsed = line.Parse(argc, argv, program.name + " " + Version());
    if (parsed.is_wrong) return USAGE;
    const int status = parsed.work ? parsed.work() : ALL_WELL;
    std::cout.flush();
    if (std::cout) return status;
    Complain(program, "can't write the result");
  } catch (const UsageError& error) {
    line.Complain(error);
    return USAGE;
  } catch (const std::exception& error) {
    Complain(program, error.what());
  }
  return program.failure;
}

bool MayColour(int fd) {
  const char* no_color = std::getenv("NO_COLOR");
  return isatty(fd) != 0 && (no_color == nullptr || *no_color == '\0');
}

std::string Version() { return FWPUSH_VERSION; }

}  // namespace common
