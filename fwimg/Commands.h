/// The commands of fwimg. Each adds itself to the program's command line.
#pragma once

#include <functional>
#include <stdexcept>

#include "common/Program.h"
#include "src/BraidGeneral.h"

namespace tools {

using common::CommandLine;
using common::MayColour;
using common::Option;
using common::UsageError;
using enum common::ExitStatus;

/// `work`, with what the loader throws made an error like any other.
inline std::function<int()> Told(std::function<int()> work) {
  return [work = std::move(work)] {
    try {
      return work();
    } catch (const BraidError& error) {
      throw std::runtime_error(error.Des());
    }
  };
}

void AddInfo(CommandLine& program);
void AddCheck(CommandLine& program);
void AddDiff(CommandLine& program);
void AddMake(CommandLine& program);
void AddExtract(CommandLine& program);
void AddConvert(CommandLine& program);

}  // namespace tools
