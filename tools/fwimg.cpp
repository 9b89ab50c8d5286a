/// fwimg: sees into image files, checks and compares them.
#include "fwimg.h"

int main(int argc, char* argv[]) {
  CLI::App app("Sees into firmware image files, checks and compares them.", "fwimg");
  app.require_subcommand(1);
  tools::Work work;
  for (const auto add : {tools::AddInfo, tools::AddCheck, tools::AddDiff}) add(app, work);
  return tools::RunTool(app, argc, argv, [&work] { return work(); });
}
