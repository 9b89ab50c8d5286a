/// fwimg: sees into image files, checks, compares and makes them.
#include "fwimg/Commands.h"

int main(int argc, char* argv[]) {
  common::CommandLine line("Sees into firmware image files, checks, compares and makes them.",
                           "fwimg");
  for (const auto add : {fwimg::AddInfo, fwimg::AddCheck, fwimg::AddDiff, fwimg::AddMake,
                         fwimg::AddExtract, fwimg::AddConvert}) {
    add(line);
  }
  return common::RunProgram({.name = "fwimg"}, line, argc, argv);
}
