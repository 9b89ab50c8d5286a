/// What the programs beside fwpush share: how they end, and how they talk.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "common/ExitStatus.h"

namespace tools {

using sim::ExitStatus;
using enum sim::ExitStatus;

/// Parses the command line, has `work` done, and returns the exit status that it gives. A wrong
/// command line, and whatever `work` throws, are told on standard error.
int RunTool(CLI::App& app, int argc, char* argv[], const std::function<int()>& work);

/// Whether what goes to `fd` may be coloured: a terminal, and no NO_COLOR in the environment.
bool MayColour(int fd);

/// The version that every program of the suite has: the one of fwpush.
std::string Version();

}  // namespace tools
