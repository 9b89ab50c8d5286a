#include "common/Program.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "common/Text.h"
#include "src/BraidGeneral.h"
#include "src/main.h"

namespace tools {

namespace {

/// Tells what has gone wrong. It may hold words of a file or a server: nothing of them may move a
/// terminal's cursor.
void Complain(const CLI::App& app, const std::string& text) {
  std::string lines;
  for (const std::string_view line : common::Lines(text)) {
    lines += (lines.empty() ? "" : "\n") + common::Printable(line);
  }
  std::cerr << app.get_name() << ": " << lines << std::endl;
}

}  // namespace

int RunTool(CLI::App& app, int argc, char* argv[], const std::function<int()>& work) {
  app.set_version_flag("--version", app.get_name() + " " + Version());
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return sim::EndParsing(app, error);
  }
  try {
    const int status = work();
    std::cout.flush();
    if (std::cout) return status;
    Complain(app, "can't write the result");
  } catch (const BraidError& error) {
    Complain(app, error.Des());
  } catch (const std::exception& error) {
    Complain(app, error.what());
  }
  return CANNOT;
}

bool MayColour(int fd) {
  const char* no_color = std::getenv("NO_COLOR");
  return isatty(fd) != 0 && (no_color == nullptr || *no_color == '\0');
}

std::string Version() { return g_version; }

}  // namespace tools
