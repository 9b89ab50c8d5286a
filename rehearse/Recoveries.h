/// Interrupts a burn, burns again, and checks that every device ends in the right state.
#pragma once

#include <mutex>
#include <vector>

#include "rehearse/Burner.h"
#include "rehearse/Options.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Report.h"
#include "rehearse/UninterruptedBurn.h"

namespace rehearse {

/// The recoveries of one rehearsal: each is a burn that is interrupted, and a second one.
class Recoveries {
 public:
  /// All arguments are borrowed; only the report is changed.
  Recoveries(const RehearsalOptions& options, const RehearsedDevices& devices, const Burner& burner,
             const UninterruptedBurn& burn, RehearsalReport& report)
      : _options(options), _devices(devices), _burner(burner), _burn(burn), _report(report) {}

  /// Runs as many recoveries as the options ask for, several at the same time. Throws
  /// std::runtime_error.
  void Run(const RehearsalProgress& progress);

 private:
  std::vector<InterruptionPoint> InterruptionPoints() const;
  void RecoverFrom(const InterruptionPoint& at);
  void Interrupt(sim::Fabric& fabric, const InterruptionPoint& at) const;
  bool BootsEverywhere(const sim::Fabric& fabric, const InterruptionPoint& at, std::size_t request);
  void Judge(const sim::Fabric& fabric, const InterruptionPoint& at, std::size_t request,
             const rehearse::Run& second);
  void Add(const InterruptionPoint& at, std::size_t request, device::Guid guid,
           const device::Verdict& verdict, const std::string& step, const std::string& reason);

  const RehearsalOptions& _options;
  const RehearsedDevices& _devices;
  const Burner& _burner;
  const UninterruptedBurn& _burn;
  RehearsalReport& _report;
  std::mutex _mutex;  ///< guards the report, and the judges, which cache results
};

}  // namespace rehearse
