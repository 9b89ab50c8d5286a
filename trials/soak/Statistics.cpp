#include "trials/soak/Statistics.h"

namespace soak {

Statistics& Statistics::operator+=(const Statistics& other) {
  scenarios += other.scenarios;
  served += other.served;
  runs += other.runs;
  for (const auto& [kind, count] : other.kinds) kinds[kind] += count;
  for (const auto& [fault, by_end] : other.ends) {
    for (const auto& [end, count] : by_end) ends[fault][end] += count;
  }
  for (const auto& [row, count] : other.rows) rows[row] += count;
  row_cases.insert(other.row_cases.begin(), other.row_cases.end());
  burnt += other.burnt;
  failed += other.failed;
  left_alone += other.left_alone;
  judged += other.judged;
  detected += other.detected;
  requests += other.requests;
  bytes += other.bytes;
  if (failure.empty()) failure = other.failure;
  return *this;
}

}  // namespace soak
