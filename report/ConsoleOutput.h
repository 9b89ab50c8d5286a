/// Standard output of fwpush-report, which passes on the console of the burn.
#pragma once

#include <string_view>

namespace report {

/// Writes to standard output until that fails, which standard error then reports.
class ConsoleOutput {
 public:
  void Write(std::string_view text);
  bool IsInsideLine() const { return _is_inside_line; }

 private:
  bool _is_lost = false;
  bool _is_inside_line = false;
};

}  // namespace report
