/// fwimg: shows, checks, compares, makes and converts firmware image files.
#include <iostream>

#include "fwimg/Commands.h"

void fwimg::PrintWarning(const std::string& text) { std::cerr << text << std::endl; }

int main(int argc, char* argv[]) {
  common::CommandLine line("Shows, checks, compares, makes and converts firmware image files.",
                           "fwimg");
  for (const auto add : {fwimg::AddInfo, fwimg::AddCheck, fwimg::AddDiff, fwimg::AddMake,
                         fwimg::AddExtract, fwimg::AddConvert}) {
    add(line);
  }
  return common::RunProgram({.name = "fwimg"}, line, argc, argv);
}
