/// fwimg: sees into image files, checks, compares and makes them.
#include "fwimg/Commands.h"

int main(int argc, char* argv[]) {
  CLI::App app("Sees into firmware image files, checks, compares and makes them.", "fwimg");
  app.require_subcommand(1);
  tools::Work work;
  for (const auto add : {tools::AddInfo, tools::AddCheck, tools::AddDiff, tools::AddMake,
                         tools::AddExtract, tools::AddConvert}) {
    add(app, work);
  }
  return tools::RunTool(app, argc, argv, [&work] { return work(); });
}
