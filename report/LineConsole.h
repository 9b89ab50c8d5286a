/// The console of fwpush as whole lines.
#pragma once

#include <string>
#include <string_view>

#include "report/BurnLog.h"

namespace report {

/// Converts the console of fwpush to whole lines, for logs: a meter becomes a line at its start,
/// one for each further tenth, and one at its end. BurnLog reads these, too.
class LineConsole {
 public:
  /// What is to be printed for the next piece.
  std::string Feed(std::string_view piece);
  /// What is to be printed at the end.
  std::string Finish();

 private:
  void EndSegment(std::string& out);
  void ShowMeter(const MeterFrame& frame, std::string& out);
  void Show(std::string_view text, std::string& out);

  std::string _segment;
  bool _is_passing = false;  ///< the segment is no meter and goes out as it comes
  bool _is_inside_line = false;
  bool _owes_line_end = false;   ///< before the next text
  bool _is_after_meter = false;  ///< nothing has come since
  MeterFrame _shown{"", 0, true};
};

}  // namespace report
