/// A burn of devices that a file names. A command line takes a limited number of them: where there
/// are more, one burn after the other is run, and all of them are reported as one.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "report/BurnLog.h"

namespace report {

/// The most bytes that the system passes on in one argument: 128 KiB with the zero at the end.
inline constexpr std::size_t LONGEST_ARGUMENT = 128 * 1024 - 1;

/// The same under the limits of this process: half of what they leave for arguments, where that is
/// less. A small stack or a large environment leaves little.
std::size_t LongestArgument();

/// One run of the burner.
struct PlannedBurn {
  std::vector<std::string> words;  ///< the program and its arguments
  std::set<Guid> asked;            ///< empty where the words name no device
};

/// The burns for one command, of which `words` are the program and the arguments. Where a -g names
/// a file ("@FILE"), the devices of all -g become one list, without leading zeros if it would be
/// too long with them, and are divided among several burns if it still is. Other commands stay as
/// they are. Throws std::runtime_error for a file that is no list of devices.
std::vector<PlannedBurn> PlanBurns(const std::vector<std::string>& words,
                                   std::size_t longest = LONGEST_ARGUMENT);

/// Why most burns are not started.
inline constexpr char BURN_BEFORE_FAILED[] = "the burn before it failed";

/// The burns of a series that were not run.
struct NotStarted {
  std::set<Guid> devices;  ///< may be empty where the command names none
  std::string reason;      ///< empty where all burns were run
};

/// The report of a series from those of its burns, in their order; at least one.
BurnReport Join(std::vector<BurnReport> burns, const NotStarted& not_started = {});

/// What came of a series, or of a single burn.
struct SeriesReport {
  BurnReport burn = {};
  std::size_t burns = 1;      ///< that the devices were divided among
  std::size_t burns_run = 1;  ///< of these, with the one that failed
  bool is_fwpush = true;      ///< each of them printed what fwpush prints
};

}  // namespace report
