#include "rehearse/Recoveries.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <stdexcept>

#include "common/Parallel.h"

namespace rehearse {

/// Divides the burn into equal parts and chooses a random moment in each, so that every phase is
/// tested.
std::vector<InterruptionPoint> Recoveries::InterruptionPoints() const {
  if (_options.at && !_options.at->IsOfThisBurn()) return {};
  if (_options.at) return {*_options.at};
  // Where an uninterrupted burn ends wrongly, the second one does, too.
  const std::size_t points = _burn.Log().Points();
  if (!_burn.EndsWell() || points == 0 || _options.recoveries == 0) return {};
  std::vector<InterruptionPoint> chosen;
  const auto spread = [&](Interruption kind, std::size_t count, std::size_t first,
                          std::size_t places) {
    count = std::min(count, places);
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t start = places * i / count;
      const std::size_t end = places * (i + 1) / count;
      const std::size_t offset =
          Chance(_options.seed, i, places) % std::max(end - start, std::size_t{1});
      chosen.push_back({kind, first + start + offset});
    }
  };
  const std::size_t live = std::min<std::size_t>(_options.recoveries / 5, _burn.Requests());
  spread(Interruption::POWER, _options.recoveries - 2 * live, 0, points);
  spread(Interruption::KILLED, live, 1, _burn.Requests());
  spread(Interruption::DROPPED, live, 1, _burn.Requests());
  return chosen;
}

void Recoveries::Run(const RehearsalProgress& progress) {
  const std::vector<InterruptionPoint> jobs = InterruptionPoints();
  std::size_t done = 0;
  common::ForEachIndex(_options.jobs, jobs.size(), [&](std::size_t job) {
    RecoverFrom(jobs[job]);
    const std::lock_guard lock(_mutex);
    progress("recovering", ++done, jobs.size());
  });
}

void Recoveries::RecoverFrom(const InterruptionPoint& at) {
  sim::Fabric fabric;
  {
    const std::lock_guard lock(_mutex);
    _devices.CopyTo(fabric);
  }
  Interrupt(fabric, at);
  const std::size_t request =
      at.kind == Interruption::POWER ? _burn.Log().Locate(at.place).operation.request : at.place;
  // A device that boots nothing cannot recover; the sweep has reported it.
  if (!BootsEverywhere(fabric, at, request)) return;
  std::atomic<std::size_t> requests{0};
  Judge(fabric, at, request, _burner.Burn(fabric, requests));
}

/// Brings the devices from their state before the burn to that at the at.
void Recoveries::Interrupt(sim::Fabric& fabric, const InterruptionPoint& at) const {
  if (at.kind == Interruption::POWER) {
    _burn.Replay(fabric, at.place, _options.seed);
    return;
  }
  if (at.place < 1 || at.place > _burn.Requests()) {
    throw std::runtime_error("the burn has no such request");
  }
  std::atomic<std::size_t> requests{0};
  if (at.kind == Interruption::KILLED) {
    if (_burner.Burn(fabric, requests, at.place).signal != SIGKILL) {
      throw std::runtime_error("the burner was gone before it was killed");
    }
    return;
  }
  sim::Fault drop;
  drop.kind = sim::Fault::CLOSE_BEFORE;
  drop.nth = static_cast<std::uint32_t>(at.place);
  fabric.faults.Add(drop);
  if (_burner.Burn(fabric, requests).is_well) {
    throw std::runtime_error("the burner did not notice that its connection was dropped");
  }
  fabric.faults = {};
}

void Recoveries::Add(const InterruptionPoint& at, std::size_t request, device::Guid guid,
                     const device::Verdict& verdict, const std::string& step,
                     const std::string& reason) {
  _report.Add({.device = guid,
               .first = at,
               .first_request = request,
               .last_request = request,
               .step = step,
               .state = Describe(verdict),
               .reason = reason});
}

bool Recoveries::BootsEverywhere(const sim::Fabric& fabric, const InterruptionPoint& at,
                                 std::size_t request) {
  const std::lock_guard lock(_mutex);
  for (const device::Guid guid : _devices.Guids()) {
    if (!_devices.BootsAtStart(guid)) continue;
    const device::Judge now = _devices.JudgeOn(fabric, guid);
    const device::Verdict verdict = now.CurrentVerdict();
    if (verdict.BootsWhole()) continue;
    if (at.kind != Interruption::POWER) {
      Add(at, request, guid, verdict, Name(at.kind), _burn.ReasonFor(guid, now, false));
    }
    return false;
  }
  return true;
}

void Recoveries::Judge(const sim::Fabric& fabric, const InterruptionPoint& at, std::size_t request,
                       const rehearse::Run& second) {
  const std::lock_guard lock(_mutex);
  ++_report.recoveries[at.kind];
  bool is_counted = false;
  for (const device::Guid guid : _devices.Guids()) {
    if (!_devices.BootsAtStart(guid)) continue;
    const device::Verdict verdict = _devices.VerdictOn(fabric, guid);
    if (second.is_well && _devices.IsBurnt(verdict)) continue;
    if (!is_counted) ++_report.unrecovered;
    is_counted = true;
    Add(at, request, guid, verdict, std::string(Name(at.kind)) + ", then burnt again",
        second.is_well ? "the second burn does not end as a burn should"
                       : "the second burn fails: " + second.LastLine());
  }
}

}  // namespace rehearse
