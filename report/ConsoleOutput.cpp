#include "report/ConsoleOutput.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "common/Descriptor.h"

namespace report {

void ConsoleOutput::Write(std::string_view text) {
  if (!text.empty()) _is_inside_line = text.back() != '\n';
  if (_is_lost || common::WriteAll(STDOUT_FILENO, text)) return;
  _is_lost = true;
  std::cerr << "fwpush-report: can't write to standard output (" << std::strerror(errno)
            << "); the burn goes on" << std::endl;
}

}  // namespace report
