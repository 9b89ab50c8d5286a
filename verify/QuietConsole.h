/// Suppresses the console output of the burner's code: its interface to memories prints while it
/// connects, and only the program's own output may reach the console.
#pragma once

#include <ios>
#include <iostream>
#include <sstream>
#include <streambuf>

namespace verify {

/// While this object exists, output to std::cout is discarded.
class QuietConsole {
 public:
  QuietConsole() : _console(std::cout.rdbuf(_discarded.rdbuf())) { _format.copyfmt(std::cout); }
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;
  ~QuietConsole() {
    std::cout.rdbuf(_console);
    std::cout.copyfmt(_format);
  }

 private:
  std::ios _format{nullptr};  ///< of std::cout, which the burner's code changes
  std::ostringstream _discarded;
  std::streambuf* _console;
};

}  // namespace verify
