/// How the programs beside fwpush end.
#pragma once

#include <CLI/CLI.hpp>

namespace sim {

enum ExitStatus {
  ALL_WELL = 0,
  DIFFERS = 1,  ///< something failed, or is not as it should be
  CANNOT = 2,   ///< the work could not be done
  USAGE = 64,   ///< the command line is wrong
};

/// Prints the help or the version that was asked for, or what is wrong with the command line.
/// Returns the exit status. CLI11's own would be above 100, one for each kind of mistake.
inline int EndParsing(const CLI::App& app, const CLI::ParseError& error) {
  return app.exit(error) == 0 ? ALL_WELL : USAGE;
}

}  // namespace sim
