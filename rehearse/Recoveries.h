/// Interrupts a burn, burns again, and checks that every device ends in the right state.
#pragma once

#include <mutex>
#include <vector>

#include "rehearse/Burner.h"
#include "rehearse/CleanBurn.h"
#include "rehearse/Options.h"
#include "rehearse/Report.h"
#include "rehearse/Subject.h"

namespace rehearse {

class Recoveries {
 public:
  /// All arguments are borrowed; only the report is changed.
  Recoveries(const RehearsalOptions& options, const Subject& subject, const Burner& burner,
             const CleanBurn& burn, RehearsalReport& report)
      : _options(options), _subject(subject), _burner(burner), _burn(burn), _report(report) {}

  /// Runs as many recoveries as the options ask for, several at the same time. Throws
  /// std::runtime_error.
  void Run(const RehearsalProgress& progress);

 private:
  std::vector<Moment> Moments() const;
  void RecoverFrom(const Moment& moment);
  void Interrupt(sim::Fabric& fabric, const Moment& moment) const;
  bool BootsEverywhere(const sim::Fabric& fabric, const Moment& moment, std::size_t request);
  void Judge(const sim::Fabric& fabric, const Moment& moment, std::size_t request,
             const rehearse::Run& second);
  void Add(const Moment& moment, std::size_t request, device::Guid guid,
           const device::Verdict& verdict, const std::string& step, const std::string& reason);

  const RehearsalOptions& _options;
  const Subject& _subject;
  const Burner& _burner;
  const CleanBurn& _burn;
  RehearsalReport& _report;
  std::mutex _mutex;  ///< guards the report, and the judges, which cache results
};

}  // namespace rehearse
