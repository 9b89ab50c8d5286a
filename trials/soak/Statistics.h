/// Counts and the first failure of the scenarios that were run.
#pragma once

#include <map>
#include <string>

#include "src/utils.h"

namespace soak {

struct Statistics {
  u_int32_t scenarios = 0;
  u_int32_t runs = 0;
  std::map<std::string, u_int32_t> kinds;                        ///< scenarios by kind
  std::map<std::string, std::map<std::string, u_int32_t>> ends;  ///< of runs, by fault
  /// Devices that may not boot, by row of docs/fail-safety.md, and the seed of one scenario for
  /// each.
  std::map<std::string, u_int32_t> rows;
  std::map<std::string, u_int64_t> row_cases;
  u_int32_t burnt = 0;
  u_int32_t failed = 0;
  u_int32_t left_alone = 0;  ///< devices
  u_int32_t judged = 0;      ///< devices checked whether they boot
  u_int32_t detected = 0;    ///< scenarios whose deliberate change was detected
  u_int64_t requests = 0;
  u_int64_t bytes = 0;  ///< compared
  std::string failure;  ///< the first one; empty where there is none

  /// Records what is wrong in the current run.
  void Fail(const std::string& text) {
    if (failure.empty()) failure = Text("run ", runs, ": ", text);
  }
  Statistics& operator+=(const Statistics& other);
};

}  // namespace soak
