/// Checks of a run, whatever faults were injected into it: how it ends, which devices it reports,
/// what it requests, what it writes and in what order, and what every device holds and boots from.
#pragma once

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "device/WriteOrder.h"
#include "trials/soak/PlannedFaults.h"
#include "trials/soak/Scenario.h"
#include "trials/soak/Statistics.h"

namespace soak {

/// All memory of a device, by chip.
using Chips = std::map<std::uint8_t, device::Bytes>;

/// The state of a target before a run.
struct Before {
  Guid node = 0;
  bool is_there = false;
  Memory memory;
  ObservedState observed;
  std::string refusal;  ///< why it will not be burnt; empty where it will
  std::size_t violations = 0;
};

/// One run of the burner.
struct BurnRun {
  std::map<Guid, Before> targets;  ///< by name
  std::map<Guid, Chips> chips;     ///< of all devices before, by node
  trials::RunOutcome outcome;
  std::vector<OccurredFault> occurred;
  std::map<Guid, std::vector<device::MemoryChange>> changes;  ///< of each device, in their order

  // Found by the checks.
  std::vector<Guid> reported;             ///< as failed
  std::map<Guid, std::size_t> failed_at;  ///< index of the request whose answer tells so, by name
  bool is_well = false;
  std::string end;  ///< a column of the statistics
};

/// As messages have it.
std::string DeviceName(Guid guid);

/// Checks the runs of one scenario, one after the other.
class RunChecker {
 public:
  /// Counts in `statistics`, and records failures there. `out`, where it is not null, gets details.
  RunChecker(const Scenario& scenario, Statistics& statistics, std::ostream* out)
      : _scenario(scenario), _statistics(statistics), _out(out), _judges(scenario.judges) {}

  /// The state before a run.
  BurnRun Begin();
  /// Checks a run that is over. After the last one, all devices that boot hold the new image.
  void Check(BurnRun& run, bool is_last);
  /// Checks a run that must change nothing.
  void CheckRefusal(const BurnRun& run);

 private:
  void CheckOutcome(const trials::RunOutcome& outcome);
  std::string EndByItself(const BurnRun& run) const;
  void CheckEnd(BurnRun& run);
  void FindFailures(BurnRun& run) const;
  void CheckReports(const BurnRun& run);
  void CheckRequests(const BurnRun& run);
  void CheckChanges(const BurnRun& run);
  void CheckOrder(const BurnRun& run, Guid name, const Before& before);
  void CheckOthers(const BurnRun& run);
  ObservedState ObservedBy(const BurnRun& run, Guid name, const Before& before) const;
  std::optional<Memory> MemoryAfter(const BurnRun& run, Guid name, const Before& before);
  void CheckMemories(const BurnRun& run);
  void CheckBoot(const BurnRun& run);
  std::string RowOf(const BurnRun& run, Guid node, const device::Verdict& verdict,
                    const Memory& memory) const;
  void CheckLast(const BurnRun& run);
  void Fail(const std::string& text) { _statistics.Fail(text); }
  device::Burn BurnOf(Guid node) const;
  bool HoldsCrcOverRecord(Guid node, std::uint32_t slot, const Memory& memory) const;

  const Scenario& _scenario;
  Statistics& _statistics;
  std::ostream* _out;
  std::map<Guid, device::Judge> _judges;  ///< by node
  GuidSet _wrong;                         ///< nodes that have had a wrong bit written
  GuidSet _excused;                       ///< nodes that need not boot any more
};

}  // namespace soak
