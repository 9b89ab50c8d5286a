/// Counts and the first failure of the scenarios that were run.
#pragma once

#include <map>
#include <string>

#include "common/Text.h"

namespace soak {

struct Statistics {
  std::uint32_t scenarios = 0;
  std::uint32_t served = 0;  ///< scenarios whose devices fwpush-serve's gateway serves
  std::uint32_t runs = 0;
  std::map<std::string, std::uint32_t> kinds;                        ///< scenarios by kind
  std::map<std::string, std::map<std::string, std::uint32_t>> ends;  ///< of runs, by fault
  /// Devices that may not boot, by row of docs/fail-safety.md, and the seed of one scenario for
  /// each.
  std::map<std::string, std::uint32_t> rows;
  std::map<std::string, std::uint64_t> row_cases;
  std::uint32_t burnt = 0;
  std::uint32_t failed = 0;
  std::uint32_t left_alone = 0;  ///< devices
  std::uint32_t judged = 0;      ///< devices checked whether they boot
  std::uint32_t detected = 0;    ///< scenarios whose deliberate change was detected
  std::uint64_t requests = 0;
  std::uint64_t bytes = 0;  ///< compared
  std::string failure;      ///< the first one; empty where there is none

  /// Records what is wrong in the current run.
  void Fail(const std::string& text) {
    if (failure.empty()) failure = common::Text("run ", runs, ": ", text);
  }
  Statistics& operator+=(const Statistics& other);
};

}  // namespace soak
