#include "Tool.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "BraidGeneral.h"
#include "main.h"

namespace tools {

int RunTool(CLI::App& app, int argc, char* argv[], const std::function<int()>& work) {
  app.set_version_flag("--version", app.get_name() + " " + Version());
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ALL_WELL : USAGE;  // 0: --help and --version
  }
  try {
    const int status = work();
    std::cout.flush();
    if (std::cout) return status;
    std::cerr << app.get_name() << ": can't write the result" << std::endl;
  } catch (const BraidError& error) {
    std::cerr << app.get_name() << ": " << error.Des() << std::endl;
  } catch (const std::exception& error) {
    std::cerr << app.get_name() << ": " << error.what() << std::endl;
  }
  return CANNOT;
}

bool MayColour(int fd) {
  const char* no_color = std::getenv("NO_COLOR");
  return isatty(fd) != 0 && (no_color == nullptr || *no_color == '\0');
}

std::string Version() { return g_version; }

}  // namespace tools
