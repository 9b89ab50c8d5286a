#include "rehearse/Rehearsal.h"

#include <chrono>

#include "rehearse/Burner.h"
#include "rehearse/CleanBurn.h"
#include "rehearse/Recoveries.h"
#include "rehearse/Subject.h"
#include "rehearse/Sweep.h"

namespace rehearse {

RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress) {
  const auto start = std::chrono::steady_clock::now();
  const RehearsalProgress say = [&](const std::string& what, std::size_t done, std::size_t total) {
    if (progress) progress(what, done, total);
  };
  const Subject subject(options);
  RehearsalReport report;
  report.devices = subject.Guids().size();
  for (const device::Guid guid : subject.Guids()) {
    if (subject.BootsAtStart(guid)) continue;
    ++report.unbootable_at_start;
    report.Add({.device = guid,
                .step = "before the burn",
                .state = Describe(subject.JudgeOf(guid).Look()),
                .reason = "the device did not boot before the burn"});
  }
  say("burning", 0, 1);
  const Burner burner(options, subject.Guids());
  const CleanBurn burn(subject, burner, report);
  say("burning", 1, 1);
  Sweep(options, subject, burn, say, report);
  Recoveries(options, subject, burner, burn, report).Run(say);
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return report;
}

}  // namespace rehearse
