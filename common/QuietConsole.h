/// Keeps the console for a program's own words where the burner's code, which prints, runs inside
/// it.
#pragma once

#include <ios>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace common {

/// Swallows what is printed on the console while it lives.
class QuietConsole {
 public:
  QuietConsole() : _console(std::cout.rdbuf(_swallowed.rdbuf())) { _format.copyfmt(std::cout); }
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;
  ~QuietConsole() {
    std::cout.rdbuf(_console);
    std::cout.copyfmt(_format);
  }
  std::string Swallowed() const { return _swallowed.str(); }

 private:
  std::ios _format{nullptr};  ///< the console's, which the burn code changes
  std::ostringstream _swallowed;
  std::streambuf* _console;
};

}  // namespace common
