#include "rehearse/Report.h"

#include <algorithm>
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

void RehearsalReport::AddFurther(RehearsalReport further, Burning during, std::size_t first,
                                 FurtherBurns& sums) {
  ++sums.burns;
  sums.points += further.Points();
  sums.unsafe += further.unbootable + further.may_not_boot;
  for (const auto& [kind, count] : further.recoveries) sums.recoveries += count;
  sums.unrecovered += further.unrecovered;
  sums.torn_records.Add(further.torn_records);
  for (RehearsalException& exception : further.exceptions) {
    exception.during = during;
    if (during == Burning::NEXT) {
      if (exception.first) exception.first->is_of_next_burn = true;
      exception.step = "next burn, " + exception.step;
    } else {
      const auto second = exception.first ? std::optional(exception.first->place) : std::nullopt;
      // The seed of the rehearsal has torn the first interruption.
      exception.first = InterruptionPoint{
          .place = first, .second = second, .second_seed = std::exchange(exception.seed, {})};
      exception.step = "recovery, " + exception.step;
    }
    // Recoveries from several states may meet the same.
    const auto known = std::ranges::find_if(exceptions, [&](const RehearsalException& other) {
      return during == Burning::RECOVERY && other.during == during &&
             other.device == exception.device && other.state == exception.state &&
             other.reason == exception.reason;
    });
    if (known == exceptions.end()) {
      Add(std::move(exception));
    } else {
      known->points += exception.points;
    }
  }
  exceptions_left_out += further.exceptions_left_out;
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
