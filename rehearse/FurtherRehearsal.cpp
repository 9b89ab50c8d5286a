#include "rehearse/FurtherRehearsal.h"

#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/Parallel.h"
#include "rehearse/Recoveries.h"

namespace rehearse {

namespace {

const RehearsalProgress SILENT = [](const std::string&, std::size_t, std::size_t) {};

/// The options with which a further burn is swept: `at`, if given, is a cut of that burn.
RehearsalOptions OptionsAt(const RehearsalOptions& options, std::optional<std::size_t> at) {
  RehearsalOptions further = options;
  if (options.at && options.at->second_seed) further.seed = *options.at->second_seed;
  further.at.reset();
  if (at) further.at = InterruptionPoint{Interruption::POWER, *at};
  return further;
}

RehearsalException FailureOf(const RehearsedDevices& devices, const BurnFails& failure) {
  const device::Guid guid = devices.Guids().front();
  return {.device = guid,
          .step = "without any interruption",
          .state = Describe(devices.JudgeOf(guid).CurrentVerdict()),
          .reason = "the burn fails: " + failure.last_line};
}

}  // namespace

std::string WhyNoFurtherBurns(const RehearsalOptions& options, const UninterruptedBurn& burn) {
  if (!options.has_next) return "--no-next";
  if (options.at && options.at->IsOfThisBurn()) return "--at";
  std::string why = burn.IsPlain()    ? "the burn is not failsafe"
                    : burn.EndsWell() ? ""
                                      : "the burn does not end as it should";
  if (options.at && !why.empty()) {
    throw std::runtime_error("--at " + Describe(*options.at) + ": there is no such burn: " + why);
  }
  return why;
}

void FurtherRehearsal::NextBurn(const RehearsalProgress& progress, RehearsalReport& report) const {
  if (_options.at && !_options.at->is_of_next_burn) return;
  progress("next burn", 0, 1);
  sim::Fabric fabric;
  _devices.CopyTo(fabric);
  _burn.Replay(fabric, std::nullopt, _options.seed);
  const RehearsedDevices devices(_devices, fabric, true);
  const RehearsalOptions options =
      OptionsAt(_options, _options.at ? std::optional(_options.at->place) : std::nullopt);
  RehearsalReport further;
  try {
    const UninterruptedBurn burn(devices, _burner, further);
    RefusePointWithoutVerdict(options, devices, burn);
    Situations situations(_options.seed);
    Sweep(options, devices, burn, SILENT, further, situations);
  } catch (const BurnFails& failure) {
    further.Add(FailureOf(devices, failure));
  }
  report.AddFurther(std::move(further), Burning::NEXT, 0, report.next);
  progress("next burn", 1, 1);
}

void FurtherRehearsal::SecondInterruptions(const Situations& situations,
                                           const RehearsalProgress& progress,
                                           RehearsalReport& report) const {
  if (_options.at && !_options.at->second) return;
  const std::vector<std::size_t> points = _options.at
                                              ? std::vector<std::size_t>{_options.at->place}
                                              : situations.Choose(MOST_SECOND_INTERRUPTIONS);
  std::vector<RehearsalReport> further(points.size());
  std::mutex mutex;  // guards `done`
  std::size_t done = 0;
  common::ForEachIndex(_options.jobs, points.size(), [&](std::size_t i) {
    further[i] = Interrupt(points[i], i);
    const std::lock_guard lock(mutex);
    progress("third burns", ++done, points.size());
  });
  for (std::size_t i = 0; i < points.size(); ++i) {
    report.AddFurther(std::move(further[i]), Burning::RECOVERY, points[i], report.interrupted);
  }
}

/// Interrupts the burn at its cut `first`, and then the burn that recovers from it. `number`
/// chooses the kind of state from which a third burn recovers.
RehearsalReport FurtherRehearsal::Interrupt(std::size_t first, std::size_t number) const {
  sim::Fabric fabric;
  _devices.CopyTo(fabric);
  _burn.Replay(fabric, first, _options.seed);
  const RehearsedDevices devices(_devices, fabric, false);
  RehearsalReport report;
  try {
    const UninterruptedBurn burn(devices, _burner, report);
    const RehearsalOptions options =
        OptionsAt(_options, _options.at ? _options.at->second : std::nullopt);
    RefusePointWithoutVerdict(options, devices, burn);
    Situations situations(_options.seed);
    Sweep(options, devices, burn, SILENT, report, situations);
    if (_options.at && _options.at->second_seed) {
      // The words of a replayed recovery are torn by a seed of their own: who repeats the point as
      // it is printed gets the same state.
      for (RehearsalException& exception : report.exceptions) {
        if (exception.first && !exception.seed) exception.seed = options.seed;
      }
    }
    const std::vector<std::size_t> safe = situations.Choose(SIZE_MAX);
    if (burn.EndsWell() && !safe.empty()) {
      const RehearsalOptions third = OptionsAt(_options, safe[number % safe.size()]);
      Recoveries(third, devices, _burner, burn, report).Run(SILENT);
    }
  } catch (const BurnFails& failure) {
    report.Add(FailureOf(devices, failure));
  }
  return report;
}

}  // namespace rehearse
