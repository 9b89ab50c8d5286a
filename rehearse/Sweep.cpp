#include "rehearse/Sweep.h"

#include <algorithm>
#include <array>
#include <map>
#include <stdexcept>

#include "common/Text.h"
#include "device/Chip.h"
#include "rehearse/TornRecord.h"

namespace rehearse {

namespace {

/// So many seeds are tried to find one that shows a torn record that adds up.
constexpr unsigned MOST_SEEDS = 1u << 14;

/// The sweep of one device.
class DeviceSweep {
 public:
  DeviceSweep(const RehearsalOptions& options, const RehearsedDevices& devices,
              const UninterruptedBurn& burn, device::Guid guid, RehearsalReport& report,
              Situations& situations)
      : _options(options),
        _devices(devices),
        _burn(burn),
        _guid(guid),
        _layout(devices.LayoutOf(guid)),
        _report(report),
        _situations(situations),
        _judge(devices.JudgeOf(guid)) {}

  /// `point` is the number of the device's first cut.
  void Run(std::size_t point, const RehearsalProgress& progress) {
    const std::vector<LoggedOperation>& log = _burn.Log().Of(_guid);
    const device::MemoryKind memory = _devices.MemoryKindOf(_guid);
    for (std::size_t i = 0; i < log.size(); ++i) {
      const CellAccess cells = CellsOf(log[i].chip);
      const std::string step = _devices.StepAt(_guid, log[i]);
      _part = step.substr(0, step.find(" at 0x"));
      for (std::size_t n = 0; n < log[i].Cuts(); ++n, ++point) {
        const Cut cut = NthCut(log[i], i, n);
        // One point alone is looked at as its seed has it.
        const bool is_torn = cut.kind == CutKind::TORN_WORD && !_options.at;
        const bool adds_up = is_torn && CountTorn(log[i], cut, point);
        ApplyCut(log[i], memory, cut, _options.seed, cells);
        if (IsAsked(point)) Look(log[i], cut, point, adds_up);
      }
      if (i % 1000 == 0) progress("sweeping", i, log.size());
    }
    progress("sweeping", log.size(), log.size());
    for (auto& [slot, torn] : _torn) {
      torn.exception.step = common::Text("boot record of slot ", slot, ", torn: ", torn.valid,
                                         " of ", torn.mixes, " mixes of old and new bits add up");
      _report.Add(torn.exception);
    }
  }

 private:
  bool IsAsked(std::size_t point) const {
    return !_options.at || (_options.at->IsOfThisBurn() && _options.at->place == point &&
                            _options.at->kind == Interruption::POWER);
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

  /// The word of a boot record that a cut tears; nothing where it tears none.
  std::optional<RecordWord> RecordWordAt(const LoggedOperation& operation, const Cut& cut) const {
    if (!_devices.HasBootRecords() || _burn.IsPlain()) return std::nullopt;
    const std::size_t start = cut.word * device::WORD_SIZE;
    const auto addr =
        _devices.LinearOf(operation.chip, static_cast<std::uint32_t>(operation.offset + start));
    if (!addr) return std::nullopt;
    const device::View wanted = device::View(operation.bytes).subspan(start);
    const std::size_t size = std::min<std::size_t>(device::WORD_SIZE, wanted.size());
    for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
      const std::size_t record = _layout.records[slot];
      const std::size_t end = record + device::BOOT_RECORD_SIZE;
      if (*addr + size <= record || *addr >= end) continue;
      if (std::max(end, *addr + size) > _judge.Bytes().size()) continue;
      const auto part = [this](std::size_t from, std::size_t length) {
        const device::View bytes = _judge.Bytes().subspan(from, length);
        return device::Bytes(bytes.begin(), bytes.end());
      };
      return RecordWord{slot,
                        part(record, device::BOOT_RECORD_SIZE),
                        static_cast<std::ptrdiff_t>(*addr) - static_cast<std::ptrdiff_t>(record),
                        part(*addr, size),
                        device::Bytes(wanted.begin(), wanted.begin() + static_cast<int>(size)),
                        _devices.MemoryKindOf(_guid)};
    }
    return std::nullopt;
  }

  /// Counts what a torn word of a boot record may hold. Whether some of it boots by chance.
  bool CountTorn(const LoggedOperation& operation, const Cut& cut, std::size_t point) {
    const auto word = RecordWordAt(operation, cut);
    if (!word) return false;
    const MixCount count = CountMixes(*word);
    _report.torn_records.Add(count);
    if (count.valid == 0) return false;
    const auto [found, is_first] = _torn.try_emplace(word->slot);
    Torn& torn = found->second;
    torn.mixes += count.mixes;
    torn.valid += count.valid;
    if (is_first) {
      torn.exception = {.device = _guid,
                        .first = InterruptionPoint{Interruption::POWER, point},
                        .first_request = operation.request,
                        .command = "write",
                        .state = "boots BROKEN, if it takes that slot",
                        .reason = MIX_ADDS_UP};
      ShowTorn(operation, cut, *word, torn.exception);
      torn.exception.is_without_seed = !torn.exception.seed;
    } else {
      ++torn.exception.points;
    }
    torn.exception.last_request = operation.request;
    return true;
  }

  /// Finds a seed that tears the word so that the record adds up, and the state which that leaves.
  void ShowTorn(const LoggedOperation& operation, const Cut& cut, const RecordWord& word,
                RehearsalException& exception) {
    const CellAccess cells = CellsOf(operation.chip);
    const auto start = static_cast<std::uint32_t>(operation.offset + cut.word * device::WORD_SIZE);
    const auto put_back = [&] {
      for (std::uint32_t i = 0; i < word.held.size(); ++i) cells.set(start + i, word.held[i]);
    };
    for (unsigned seed = 1; seed <= MOST_SEEDS && !exception.seed; ++seed) {
      ApplyCut(operation, word.memory, cut, seed, cells);
      const device::Verdict verdict = _judge.CurrentVerdict();
      if (verdict.slots[word.slot].BootsBroken()) {
        exception.seed = seed;
        exception.state = Describe(verdict);
      }
      put_back();
    }
  }

  /// `is_told`: what a torn word there may leave is an exception of its own.
  void Look(const LoggedOperation& operation, const Cut& cut, std::size_t point, bool is_told) {
    const device::Verdict verdict = _judge.CurrentVerdict();
    _report.Count(cut.kind, verdict);
    if (verdict.IsSafe()) NoteSafe(operation, cut, verdict, point);
    if (verdict.IsSafe() || (is_told && !_goes_on)) {
      _goes_on = false;
    } else if (_goes_on && _last == verdict) {
      ++_report.exceptions.back().points;
      _report.exceptions.back().last_request = operation.request;
    } else {
      const bool is_erase = operation.kind == sim::Operation::ERASE;
      const bool is_torn_record =
          cut.kind == CutKind::TORN_WORD && RecordWordAt(operation, cut).has_value();
      _goes_on = _report.Add({.device = _guid,
                              .first = InterruptionPoint{Interruption::POWER, point},
                              .first_request = operation.request,
                              .last_request = operation.request,
                              .command = is_erase ? "erase" : "write",
                              .step = _devices.StepAt(_guid, operation),
                              .state = Describe(verdict),
                              .reason = _burn.ReasonFor(_guid, _judge, is_torn_record)});
      _last = verdict;
    }
  }

  void NoteSafe(const LoggedOperation& operation, const Cut& cut, const device::Verdict& verdict,
                std::size_t point) {
    const std::array is_signed = {_judge.IsSigned(0), _judge.IsSigned(1)};
    const bool is_boot_record =
        _devices.HasBootRecords() && RecordWordAt(operation, cut).has_value();
    Noted& last = _noted.at(static_cast<std::size_t>(cut.kind));
    if (last.operation != &operation || last.verdict != verdict || last.is_signed != is_signed ||
        last.is_boot_record != is_boot_record) {
      Situations::Kind kind{.part = _part,
                            .operation = operation.kind,
                            .cut = cut.kind,
                            .is_boot_record = is_boot_record,
                            .is_signed = is_signed};
      for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
        kind.slots[slot] = {verdict.slots[slot].boots, verdict.slots[slot].whole};
      }
      last = {&operation, verdict, is_signed, is_boot_record, _situations.NumberOf(kind)};
    }
    _situations.Add(last.number, point);
  }

  /// The kind of the last safe state after a cut of one kind. Mostly the next one is of the same.
  struct Noted {
    const LoggedOperation* operation = nullptr;
    device::Verdict verdict;
    std::array<bool, device::SLOTS> is_signed{};
    bool is_boot_record = false;
    std::size_t number = 0;
  };

  /// The torn words of one slot's boot record.
  struct Torn {
    std::uint64_t mixes = 0;
    std::uint64_t valid = 0;
    RehearsalException exception;
  };

  const RehearsalOptions& _options;
  const RehearsedDevices& _devices;
  const UninterruptedBurn& _burn;
  device::Guid _guid;
  device::BootLayout _layout;
  RehearsalReport& _report;
  Situations& _situations;
  device::Judge _judge;
  device::Verdict _last;  ///< of the previous point, where that was an exception
  bool _goes_on = false;
  std::map<std::uint32_t, Torn> _torn;  ///< by slot
  std::array<Noted, 4> _noted;          ///< by CutKind
  std::string _part;                    ///< that the current operation changes
};

}  // namespace

std::size_t Situations::NumberOf(const Kind& kind) {
  const auto [found, is_first] = _groups_by_kind.try_emplace(kind, _groups.size());
  if (is_first) _groups.emplace_back();
  return found->second;
}

void Situations::Add(std::size_t number, std::size_t point) {
  Group& group = _groups.at(number);
  ++group.seen;  // each of those seen so far is the one with the same probability
  if (Chance(_seed, number, group.seen) % group.seen == 0) group.point = point;
}

std::vector<std::size_t> Situations::Choose(std::size_t count) const {
  count = std::min(count, _groups.size());
  std::vector<std::size_t> points;
  for (std::size_t i = 0; i < count; ++i)
    points.push_back(_groups[_groups.size() * i / count].point);
  return points;
}

void RefusePointWithoutVerdict(const RehearsalOptions& options, const RehearsedDevices& devices,
                               const UninterruptedBurn& burn) {
  if (!options.at) return;
  const auto refuse = [&options](const std::string& why) {
    throw std::runtime_error("--at " + Describe(*options.at) + ": nothing to look at: " + why +
                             " did not boot before this burn");
  };
  if (options.at->kind == Interruption::POWER) {
    const device::Guid guid = burn.Log().Locate(options.at->place).guid;
    if (!devices.BootsAtStart(guid)) refuse("the device " + common::HexGuid(guid));
  } else if (std::ranges::none_of(devices.Guids(), [&devices](device::Guid guid) {
               return devices.BootsAtStart(guid);
             })) {
    refuse("the devices");
  }
}

void Sweep(const RehearsalOptions& options, const RehearsedDevices& devices,
           const UninterruptedBurn& burn, const RehearsalProgress& progress,
           RehearsalReport& report, Situations& situations) {
  std::size_t point = 0;
  for (const device::Guid guid : devices.Guids()) {
    if (devices.BootsAtStart(guid)) {
      DeviceSweep(options, devices, burn, guid, report, situations).Run(point, progress);
    }
    point += burn.Log().PointsOf(guid);
  }
}

}  // namespace rehearse
