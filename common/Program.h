/// What the main functions of the programs beside fwpush share.
#pragma once

#include <string>

#include "common/CommandLine.h"
#include "common/ExitStatus.h"

namespace common {

/// Who a program is in what it says, and how it ends where it cannot do its work.
struct Program {
  std::string name;
  int failure = CANNOT;      ///< the exit status
  bool is_verbatim = false;  ///< says why as it is; else nothing of it can move a terminal's cursor
};

/// Parses the command line and does its work. Returns the exit status: the work's own, or that of a
/// wrong command line, of a result that could not be written, or of what the work threw, which
/// standard error tells.
int RunProgram(const Program& program, CommandLine& line, int argc, char* argv[]);

/// Whether what goes to `fd` may be coloured: a terminal, and no NO_COLOR in the environment.
bool MayColour(int fd);

/// The version that every program of the suite has: the one of fwpush.
std::string Version();

}  // namespace common
