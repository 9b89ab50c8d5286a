#include "rehearse/Rehearsal.h"

#include <chrono>

#include "rehearse/Burner.h"
#include "rehearse/FurtherRehearsal.h"
#include "rehearse/Recoveries.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Sweep.h"
#include "rehearse/UninterruptedBurn.h"

namespace rehearse {

RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress) {
  const auto start = std::chrono::steady_clock::now();
  const RehearsalProgress say = [&](const std::string& what, std::size_t done, std::size_t total) {
    if (progress) progress(what, done, total);
  };
  const RehearsedDevices devices(options);
  RehearsalReport report;
  report.devices = devices.Guids().size();
  for (const device::Guid guid : devices.Guids()) {
    if (const auto& images = devices.KnownByRecord(guid); !images.empty()) {
      report.known_by_record.push_back({guid, images});
    }
    if (devices.BootsAtStart(guid)) continue;
    ++report.unbootable_at_start;
    report.Add({.device = guid,
                .step = "before the burn",
                .state = Describe(devices.JudgeOf(guid).CurrentVerdict()),
                .reason = "the device did not boot before the burn"});
  }
  say("burning", 0, 1);
  const Burner burner(options, devices.Guids());
  const UninterruptedBurn burn(devices, burner, report);
  say("burning", 1, 1);
  if (options.at && !options.at->is_of_next_burn) RefusePointWithoutVerdict(options, devices, burn);
  Situations situations(options.seed);
  Sweep(options, devices, burn, say, report, situations);
  Recoveries(options, devices, burner, burn, report).Run(say);
  report.not_tried = WhyNoFurtherBurns(options, burn);
  if (report.not_tried.empty()) {
    const FurtherRehearsal further(options, devices, burner, burn);
    further.NextBurn(say, report);
    further.SecondInterruptions(situations, say, report);
  }
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return report;
}

}  // namespace rehearse
