/// The result of a burn, in the forms that people and machines want it in.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "report/BurnLog.h"
#include "report/BurnSeries.h"

namespace report {

/// What is known of a whole run.
struct RunReport : SeriesReport {
  std::optional<Ending> ending;   ///< of a live run
  std::optional<double> seconds;  ///< likewise
  std::vector<std::string> words;
};

/// docs/json.md describes the object.
std::string ToJson(const RunReport& run);
/// A test suite with a test for each device, and one for the run.
std::string ToJUnit(const RunReport& run);
/// For people, some lines. `has_colour`: with the colours of a terminal.
std::string Summary(const RunReport& run, bool has_colour);

}  // namespace report
