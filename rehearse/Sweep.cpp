#include "rehearse/Sweep.h"

namespace rehearse {

namespace {

/// The sweep of one device.
class DeviceSweep {
 public:
  DeviceSweep(const RehearsalOptions& options, const RehearsedDevices& devices,
              const UninterruptedBurn& burn, device::Guid guid, RehearsalReport& report)
      : _options(options),
        _devices(devices),
        _burn(burn),
        _guid(guid),
        _report(report),
        _judge(devices.JudgeOf(guid)) {}

  /// `point` is the number of the device's first cut.
  void Run(std::size_t point, const RehearsalProgress& progress) {
    const std::vector<LoggedOperation>& log = _burn.Log().Of(_guid);
    const device::MemoryKind memory = _devices.MemoryKindOf(_guid);
    for (std::size_t i = 0; i < log.size(); ++i) {
      const CellAccess cells = CellsOf(log[i].chip);
      for (std::size_t n = 0; n < log[i].Cuts(); ++n, ++point) {
        const Cut cut = NthCut(log[i], i, n);
        ApplyCut(log[i], memory, cut, _options.seed, cells);
        if (IsAsked(point)) Look(log[i], cut, point);
      }
      if (i % 1000 == 0) progress("sweeping", i, log.size());
    }
    progress("sweeping", log.size(), log.size());
  }

 private:
  bool IsAsked(std::size_t point) const {
    return !_options.at ||
           (_options.at->kind == Interruption::POWER && _options.at->place == point);
  }

  CellAccess CellsOf(std::uint8_t chip) {
    return {[this, chip](std::uint32_t offset) {
              const auto addr = _devices.LinearOf(chip, offset);
              return addr ? _judge.Bytes()[*addr] : device::ERASED;
            },
            [this, chip](std::uint32_t offset, std::uint8_t byte) {
              if (const auto addr = _devices.LinearOf(chip, offset)) _judge.Set(*addr, byte);
            }};
  }

  void Look(const LoggedOperation& operation, const Cut& cut, std::size_t point) {
    const device::Verdict verdict = _judge.CurrentVerdict();
    _report.Count(cut.kind, verdict);
    if (verdict.IsSafe()) {
      _goes_on = false;
    } else if (_goes_on && _last == verdict) {
      ++_report.exceptions.back().points;
      _report.exceptions.back().last_request = operation.request;
    } else {
      const bool is_erase = operation.kind == sim::Operation::ERASE;
      _goes_on = _report.Add({.device = _guid,
                              .first = InterruptionPoint{Interruption::POWER, point},
                              .first_request = operation.request,
                              .last_request = operation.request,
                              .command = is_erase ? "erase" : "write",
                              .step = _devices.StepAt(_guid, operation),
                              .state = Describe(verdict),
                              .reason = _burn.ReasonFor(_guid, verdict)});
      _last = verdict;
    }
  }

  const RehearsalOptions& _options;
  const RehearsedDevices& _devices;
  const UninterruptedBurn& _burn;
  device::Guid _guid;
  RehearsalReport& _report;
  device::Judge _judge;
  device::Verdict _last;  ///< of the previous point, where that was an exception
  bool _goes_on = false;
};

}  // namespace

void Sweep(const RehearsalOptions& options, const RehearsedDevices& devices,
           const UninterruptedBurn& burn, const RehearsalProgress& progress,
           RehearsalReport& report) {
  std::size_t point = 0;
  for (const device::Guid guid : devices.Guids()) {
    if (devices.BootsAtStart(guid)) {
      DeviceSweep(options, devices, burn, guid, report).Run(point, progress);
    }
    point += burn.Log().PointsOf(guid);
  }
}

}  // namespace rehearse
