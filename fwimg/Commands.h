/// The commands of fwimg. Each adds itself to the program's command line.
#pragma once

#include "common/Program.h"

namespace fwimg {

using common::CommandLine;
using common::MayColour;
using common::Option;
using common::UsageError;
using enum common::ExitStatus;

/// Prints a warning on standard error: warnings are no results.
void PrintWarning(const std::string& text);

void AddInfo(CommandLine& program);
void AddCheck(CommandLine& program);
void AddDiff(CommandLine& program);
void AddMake(CommandLine& program);
void AddExtract(CommandLine& program);
void AddConvert(CommandLine& program);

}  // namespace fwimg
