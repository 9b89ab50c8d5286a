/// What the programs beside fwpush share: how they end, and how they talk.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace tools {

/// How every one of them ends.
enum ExitStatus {
  ALL_WELL = 0,
  DIFFERS = 1,  ///< something failed, or is not as it should be
  CANNOT = 2,   ///< the work could not be done
  USAGE = 64,   ///< the command line is wrong
};

/// Parses the command line, has `work` done, and returns the exit status that it gives. A wrong
/// command line, and whatever `work` throws, are told on standard error.
int RunTool(CLI::App& app, int argc, char* argv[], const std::function<int()>& work);

/// Whether what goes to `fd` may be coloured: a terminal, and no NO_COLOR in the environment.
bool MayColour(int fd);

/// The version that every program of the suite has: the one of fwpush.
std::string Version();

}  // namespace tools
