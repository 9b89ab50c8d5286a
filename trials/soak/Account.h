/// What stories came to.
#pragma once

#include <map>
#include <string>

#include "src/utils.h"

namespace soak {

struct Account {
  u_int32_t stories = 0;
  u_int32_t runs = 0;
  std::map<std::string, u_int32_t> kinds;
  std::map<std::string, std::map<std::string, u_int32_t>> ends;  ///< by what went wrong
  /// Devices that may not boot, by row of docs/fail-safety.md, and a story of each.
  std::map<std::string, u_int32_t> rows;
  std::map<std::string, u_int64_t> row_cases;
  u_int32_t burnt = 0;
  u_int32_t failed = 0;
  u_int32_t left_alone = 0;
  u_int32_t judged = 0;     ///< asked whether they boot
  u_int32_t found_out = 0;  ///< what was spoilt on purpose
  u_int64_t requests = 0;
  u_int64_t bytes = 0;  ///< compared
  std::string failure;  ///< the first one

  /// Takes down what is wrong in the run in hand.
  void Fail(const std::string& text) {
    if (failure.empty()) failure = Text("run ", runs, ": ", text);
  }
  Account& operator+=(const Account& other);
};

}  // namespace soak
