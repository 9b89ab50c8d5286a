#include "rehearse/Report.h"

#include <utility>

namespace rehearse {

namespace {

constexpr std::size_t MOST_EXCEPTIONS = 200;  ///< more of them give no new information

}  // namespace

std::size_t RehearsalReport::Points() const {
  std::size_t sum = 0;
  for (const auto& [kind, count] : points) sum += count;
  return sum;
}

void RehearsalReport::Count(CutKind kind, const device::Verdict& verdict) {
  ++points[kind];
  if (!verdict.BootsWhole()) {
    ++unbootable;
  } else if (!verdict.IsSafe()) {
    ++may_not_boot;
  } else {
    ++(verdict.BootsNew() ? boot_new : boot_old);
  }
}

bool RehearsalReport::Add(RehearsalException exception) {
  if (exceptions.size() >= MOST_EXCEPTIONS) {
    ++exceptions_left_out;
    return false;
  }
  exceptions.push_back(std::move(exception));
  return true;
}

}  // namespace rehearse
