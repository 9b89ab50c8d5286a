/// Shared code of the main functions of the programs beside fwpush.
#pragma once

#include <string>

#include "common/CommandLine.h"
#include "common/ExitStatus.h"

namespace common {

/// A program's name in its messages, and how it reports failures.
struct Program {
  std::string name;
  int failure = CANNOT;  ///< exit status where an exception ends its work
  /// Prints messages as they are; else all that Printable escapes, but for line feeds, is escaped.
  bool is_verbatim = false;
};

/// Parses the command line and does its work. Opens /dev/null as those of standard input, output
/// and error that are closed, the wrong way round: using them stays an error. Returns the exit
/// status of the work; USAGE for a wrong command line; or the program's `failure`, when the work
/// threw or standard output could not be written. Errors go to standard error.
int RunProgram(const Program& program, CommandLine& line, int argc, char* argv[]);

/// Whether output to `fd` may be coloured: it is a terminal, and NO_COLOR is not set.
bool MayColour(int fd);

/// The version of fwpush, which all programs share.
std::string Version();

}  // namespace common
