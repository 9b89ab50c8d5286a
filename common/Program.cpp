#include "common/Program.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>

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

}  // namespace

int RunProgram(const Program& program, CommandLine& line, int argc, char* argv[]) {
  const CommandLine::Parsed parsed = line.Parse(argc, argv, program.name + " " + Version());
  if (parsed.is_wrong) return USAGE;
  if (!parsed.work) return ALL_WELL;
  try {
    const int status = parsed.work();
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
