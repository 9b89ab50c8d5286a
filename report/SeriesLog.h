/// The saved console of a series of burns. A line before the output of each burn tells which one it
/// is, so that each burn is judged by its own output.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "report/BurnLog.h"
#include "report/BurnSeries.h"

namespace report {

/// What stands before the output of one burn of a series.
struct BurnMark {
  std::size_t number = 0;   ///< of the burn, from 1
  std::size_t burns = 0;    ///< of the series
  std::size_t devices = 0;  ///< of the burn
  Guid first = 0;           ///< its lowest GUID
  Guid last = 0;            ///< its highest
};

/// The mark of `burns[index]`, which has devices.
BurnMark MarkOf(const std::vector<PlannedBurn>& burns, std::size_t index);
/// Its line, without the line end; and back, nothing for any other text.
std::string ToLine(const BurnMark& mark);
std::optional<BurnMark> ReadMark(std::string_view line);

/// Divides a console at its marks.
class MarkFinder {
 public:
  using TakeText = std::function<void(std::string_view)>;
  using TakeMark = std::function<void(const BurnMark&)>;
  /// Text and marks are handed over in their order.
  MarkFinder(TakeText take_text, TakeMark take_mark);

  /// Takes the next piece, cut anywhere. Holds back what may be the beginning of a mark.
  void Feed(std::string_view piece);
  /// To be called at the end: what was held back was no mark.
  void Finish();

 private:
  void Flush();

  TakeText _take_text;
  TakeMark _take_mark;
  std::string _held;  ///< the beginning of a line
  bool _is_line_start = true;
};

/// The output of one burn in a saved console; without a mark where the console is not divided.
struct SavedBurn {
  std::optional<BurnMark> mark;
  BurnLog log;
};

/// What became of the devices in `asked`, or of those that the console names where that is empty.
/// Burns of the series that the console does not have were not started. `planned` is the number of
/// burns that the devices need. Throws std::runtime_error where it is not known which devices a
/// burn had.
SeriesReport JudgeSavedBurns(std::vector<SavedBurn>& saved, const std::set<Guid>& asked,
                             std::size_t planned);

}  // namespace report
