/// Interrupts a burn, burns again, and looks whether every device ends as it should.
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
  /// All is borrowed; only the report is changed.
  Recoveries(const RehearsalOptions& options, const Subject& subject, const Burner& burner,
             const CleanBurn& burn, RehearsalReport& report)
      : _options(options), _subject(subject), _burner(burner), _burn(burn), _report(report) {}

  /// From as many moments as the options ask for, several side by side. Throws std::runtime_error.
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
  std::mutex _mutex;  ///< over the report, and over judges, which remember what they have computed
};

}  // namespace rehearse
