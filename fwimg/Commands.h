/// The commands of fwimg. Each adds itself to the program and keeps in `work` what is to be done
/// when it is chosen.
#pragma once

#include "common/Program.h"

namespace tools {

using Work = std::function<int()>;

void AddInfo(CLI::App& app, Work& work);
void AddCheck(CLI::App& app, Work& work);
void AddDiff(CLI::App& app, Work& work);
void AddMake(CLI::App& app, Work& work);
void AddExtract(CLI::App& app, Work& work);
void AddConvert(CLI::App& app, Work& work);

}  // namespace tools
