#include "trials/soak/RunChecker.h"

#include <algorithm>
#include <csignal>

#include "common/Text.h"
#include "sim/Filling.h"
#include "trials/BurnOutput.h"

namespace soak {

using common::Text;
using device::Burn;
using sim::MemoryOf;

namespace {

constexpr char COVERED_ROW[] = "a CRC over the first four bytes of a slot";
constexpr char TORN_ROW[] = "a torn boot record that adds up by chance";
/// Indices of the request for the list of devices, and of the second one for boot records.
constexpr std::size_t LIST_REQUEST = 2;
constexpr std::size_t SECOND_RECORDS_REQUEST = 4;

Chips ChipsOf(const sim::Device& device) {
  Chips chips;
  for (const auto& [address, chip] : device.chips) {
    chips[address] = device::Bytes(chip.Bytes().begin(), chip.Bytes().end());
  }
  return chips;
}

/// Whether a device has changed in memory that the image does not map.
bool DifferBeyond(const Image& image, const sim::Device& device, const Chips& before) {
  for (const auto& [address, chip] : device.chips) {
    std::size_t from = image.map.empty() && address == 0 ? chip.Size() : 0;
    for (const MappedChip& mapped : image.map) {
      if (mapped.chip == address) from = mapped.size;
    }
    const device::Bytes& old = before.at(address);
    if (!std::equal(old.begin() + static_cast<std::ptrdiff_t>(from), old.end(),
                    chip.Bytes().begin() + static_cast<std::ptrdiff_t>(from))) {
      return true;
    }
  }
  return false;
}

std::size_t ViolationsOf(const sim::Device& device) {
  std::size_t count = 0;
  for (const auto& [address, chip] : device.chips) count += chip.Violations().size();
  return count;
}

std::size_t FirstDifference(const device::Bytes& left, const device::Bytes& right) {
  return static_cast<std::size_t>(std::ranges::mismatch(left, right).in1 - left.begin());
}

}  // namespace

std::string DeviceName(Guid guid) { return "device " + sim::HexGuid(guid); }

Burn RunChecker::BurnOf(Guid node) const {
  return Burn(_scenario.image, _scenario.burn, IdentityOf(*_scenario.fabric.Find(node)));
}

BurnRun RunChecker::Begin() {
  BurnRun run;
  for (const auto& [guid, device] : _scenario.fabric.Devices()) run.chips[guid] = ChipsOf(device);
  // A refused burn reaches no device.
  if (!_scenario.refusal.empty()) return run;
  for (const Guid name : _scenario.targets) {
    Before& before = run.targets[name];
    const sim::Device* device = _scenario.fabric.Find(name);
    if (device == nullptr) continue;
    before.node = device->node_guid;
    before.is_there = device->has_power;
    before.memory = MemoryOf(*device, _scenario.image);
    const Burn burn = BurnOf(before.node);
    before.observed = burn.Observe(before.memory);
    before.refusal = burn.After(before.memory).refusal;
    before.violations = ViolationsOf(*device);
    const auto judge = _judges.find(before.node);
    if (judge == _judges.end()) continue;
    // Between the sections of an image, the device keeps what it holds now.
    judge->second.SetAll(before.memory.bytes);
    judge->second.AddKnownImage(_scenario.image, IdentityOf(*device), before.memory,
                                device::Whole::NEW, device::Origin::FAILSAFE_BURN);
  }
  return run;
}

void RunChecker::Check(BurnRun& run, bool is_last) {
  for (const trials::FailedDevice& report : trials::FailedDevicesIn(run.outcome.output)) {
    run.reported.push_back(report.device);
  }
  _statistics.requests += run.outcome.requests.size();
  _statistics.failed += static_cast<std::uint32_t>(run.reported.size());
  CheckEnd(run);
  FindFailures(run);
  CheckReports(run);
  CheckRequests(run);
  CheckChanges(run);
  CheckOthers(run);
  CheckMemories(run);
  CheckBoot(run);
  if (is_last) CheckLast(run);
  for (const OccurredFault& occurred : run.occurred)
    ++_statistics.ends[occurred.planned.Name()][run.end];
  if (run.occurred.empty()) ++_statistics.ends["nothing"][run.end];
}

void RunChecker::CheckRefusal(const BurnRun& run) {
  const trials::RunOutcome& outcome = run.outcome;
  _statistics.requests += outcome.requests.size();
  ++_statistics.ends["refused on purpose"]["ended"];
  CheckOutcome(outcome);
  if (!outcome.errors.empty()) Fail("standard error: " + outcome.errors);
  const std::string end = trials::FinalErrorIn(outcome.output);
  if (outcome.status != 1 || end.find(_scenario.refusal) == std::string::npos) {
    Fail(Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"", end,
              "\" instead of \"", _scenario.refusal, "\""));
  }
  if (!run.changes.empty()) Fail("devices are changed that must be refused");
  for (const auto& [guid, device] : _scenario.fabric.Devices()) {
    const Chips after = ChipsOf(device);
    if (after != run.chips.at(guid)) Fail(DeviceName(guid) + " is changed");
    for (const auto& [address, bytes] : after) _statistics.bytes += bytes.size();
    ++_statistics.left_alone;
  }
}

void RunChecker::CheckOutcome(const trials::RunOutcome& outcome) {
  if (!outcome.in_time) Fail("it does not end by itself");
  if (!outcome.protocol_error.empty()) Fail(outcome.protocol_error);
  if (!outcome.server_error.empty()) Fail(outcome.server_error);
}

/// The error that must end the run without any fault; empty where it must succeed.
std::string RunChecker::EndByItself(const BurnRun& run) const {
  std::uint32_t there = 0;
  std::uint32_t refused = 0;
  for (const auto& [name, before] : run.targets) {
    there += before.is_there ? 1 : 0;
    refused += before.is_there && !before.refusal.empty() ? 1 : 0;
  }
  if (there == 0) return "No more accessible devices";
  if (refused < there) return "";
  return _scenario.Slots() == SlotKind::BOOT_RECORDS ? "All devices can't be failsafe burnt"
                                                     : "No more accessible devices";
}

void RunChecker::CheckEnd(BurnRun& run) {
  const trials::RunOutcome& outcome = run.outcome;
  CheckOutcome(outcome);
  const std::string text = trials::FinalErrorIn(outcome.output);
  const std::string assertion = trials::FailedAssertionIn(outcome.errors);
  run.is_well = trials::HasSucceeded(outcome);

  std::vector<std::string> ends;
  std::vector<std::string> asserts;
  const std::string by_itself = EndByItself(run);
  bool must_fail = !by_itself.empty();
  if (must_fail) ends.push_back(by_itself);
  int signal = 0;
  for (const OccurredFault& occurred : run.occurred) {
    ends.insert(ends.end(), occurred.ends.begin(), occurred.ends.end());
    asserts.insert(asserts.end(), occurred.asserts.begin(), occurred.asserts.end());
    must_fail = must_fail || occurred.must_fail;
    if (occurred.signal != 0) signal = occurred.signal;
  }
  const auto may_end = [&](const std::string& end) { return text.starts_with(end); };
  const bool has_ended = outcome.status == 1 && std::ranges::any_of(ends, may_end);
  const bool has_aborted = outcome.signal == SIGABRT && std::ranges::count(asserts, assertion) > 0;
  bool is_right = has_ended || has_aborted || (run.is_well && !must_fail);
  // The signal comes while the burner waits for an answer: it ends by nothing else.
  if (signal != 0) is_right = outcome.signal == signal;
  run.end = run.is_well ? "succeeded" : has_aborted ? "aborted" : signal != 0 ? "killed" : "ended";
  if (!is_right) {
    std::string wanted = must_fail ? "" : "success";
    for (const std::string& end : ends) wanted += (wanted.empty() ? "" : ", ") + end;
    for (const std::string& end : asserts) wanted += (wanted.empty() ? "" : ", ") + end;
    Fail(Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"", text,
              assertion, "\" instead of ", wanted));
  }
  if (!has_aborted && !outcome.errors.empty()) Fail("standard error: " + outcome.errors);
}

/// Finds for each failed device the request whose answer told the burner.
void RunChecker::FindFailures(BurnRun& run) const {
  const auto fails = [&run](Guid name, std::size_t at) { run.failed_at.try_emplace(name, at); };
  for (const auto& [name, before] : run.targets) {
    if (!before.is_there) fails(name, LIST_REQUEST);
    // A flash without a valid image ends the run.
    if (before.is_there && !before.refusal.empty() && _scenario.Slots() == SlotKind::BOOT_RECORDS) {
      fails(name, SECOND_RECORDS_REQUEST);
    }
  }
  for (const OccurredFault& occurred : run.occurred) {
    if (occurred.loses_device_at) fails(*occurred.device, *occurred.loses_device_at);
  }
  for (std::size_t i = 0; i < run.outcome.requests.size(); ++i) {
    const auto request = trials::ParseExchange(run.outcome.requests[i], "", false);
    const std::vector<std::string> elements = trials::ElementsOf(run.outcome.answers[i]);
    if (elements.size() != request.devices.size()) continue;
    for (std::size_t j = 0; j < elements.size(); ++j) {
      if (elements[j].starts_with("ERROR:") || elements[j].starts_with("{ERROR:"))
        fails(request.devices[j], i);
    }
  }
}

/// Every failed device is reported, once, and no other one.
void RunChecker::CheckReports(const BurnRun& run) {
  GuidSet explained;
  bool any_may_fail = false;
  for (const auto& [name, at] : run.failed_at) explained.insert(name);
  for (const auto& [name, before] : run.targets) {
    if (!before.refusal.empty()) explained.insert(name);
  }
  for (const OccurredFault& occurred : run.occurred) {
    any_may_fail = any_may_fail || occurred.may_lose_all;
    if (occurred.is_misread && occurred.device) explained.insert(*occurred.device);
  }
  GuidSet seen;
  for (const Guid name : run.reported) {
    if (!seen.insert(name).second) Fail(DeviceName(name) + " is reported as failed twice");
    if (!run.targets.contains(name)) {
      Fail(DeviceName(name) + " is no target, and is reported as failed");
    }
    if (!any_may_fail && !explained.contains(name)) {
      Fail(DeviceName(name) + " is reported as failed without a reason");
    }
  }
  for (const auto& [name, at] : run.failed_at) {
    const bool was_heard = run.is_well || at + 1 < run.outcome.requests.size();
    if (was_heard && !seen.contains(name)) Fail(DeviceName(name) + " failed, and is not reported");
  }
}

void RunChecker::CheckRequests(const BurnRun& run) {
  for (const OccurredFault& occurred : run.occurred) {
    if (occurred.is_last && occurred.planned.at + 1 < run.outcome.requests.size()) {
      Fail(Text("goes on after request ", occurred.planned.at + 1, ", which is answered twice"));
    }
  }
  for (std::size_t i = 0; i < run.outcome.requests.size(); ++i) {
    const std::string& text = run.outcome.requests[i];
    const auto request = trials::ParseExchange(text, "", false);
    const bool is_opening = i <= LIST_REQUEST;
    if (request.devices.empty() != is_opening) Fail("names no device, or too early: " + text);
    for (std::size_t j = 0; j < request.devices.size(); ++j) {
      const Guid name = request.devices[j];
      if (!run.targets.contains(name)) Fail("a device is named that is no target: " + text);
      if (j > 0 && request.devices[j - 1] >= name) Fail("devices out of order: " + text);
      const auto failed = run.failed_at.find(name);
      if (failed != run.failed_at.end() && failed->second < i) {
        Fail(Text("request ", i + 1, " names a failed device: ", text));
      }
    }
  }
}

/// Only targets are written to, and only as the steps of the burn allow, in their order.
void RunChecker::CheckChanges(const BurnRun& run) {
  GuidSet given;
  for (const auto& [name, before] : run.targets) {
    if (!before.is_there) continue;
    given.insert(before.node);
    CheckOrder(run, name, before);
  }
  for (const auto& [node, changes] : run.changes) {
    if (!given.contains(node)) Fail(DeviceName(node) + " is no target, and is written");
  }
}

/// The writes keep the order of the steps of the burn.
void RunChecker::CheckOrder(const BurnRun& run, Guid name, const Before& before) {
  std::vector<device::Step> steps;
  if (!_scenario.check_only) {
    steps = BurnOf(before.node).Steps(before.memory, ObservedBy(run, name, before));
  }
  const auto changes = run.changes.find(before.node);
  if (changes == run.changes.end()) return;
  const std::string error = device::OrderError(steps, changes->second);
  if (!error.empty()) Fail(Text(DeviceName(name), ": ", error));
}

/// Devices that are no targets, and memory that the image does not map, are unchanged.
void RunChecker::CheckOthers(const BurnRun& run) {
  GuidSet given;
  for (const auto& [name, before] : run.targets) given.insert(before.node);
  for (const auto& [guid, device] : _scenario.fabric.Devices()) {
    const Chips& before = run.chips.at(guid);
    if (!given.contains(guid)) {
      if (ChipsOf(device) != before) Fail(DeviceName(guid) + " is no target, and is changed");
      for (const auto& [address, bytes] : before) _statistics.bytes += bytes.size();
      ++_statistics.left_alone;
    } else if (DifferBeyond(_scenario.image, device, before)) {
      Fail(DeviceName(guid) + " is changed where the image has nothing");
    }
  }
}

/// What the burner knows of the device, by the answers that it got.
ObservedState RunChecker::ObservedBy(const BurnRun& run, Guid name, const Before& before) const {
  ObservedState observed = before.observed;
  for (const OccurredFault& occurred : run.occurred) {
    if (!occurred.is_misread || occurred.device != name) continue;
    const std::uint32_t addr = occurred.request.addr;
    for (const std::uint32_t slot : {0u, 1u}) {
      if (_scenario.image.slots[slot].signature == addr) observed.is_signed[slot] = false;
    }
    const bool is_marker = addr == device::FAILSAFE_MARKER && occurred.request.size == 4;
    if (addr < before.memory.sector_size && !is_marker) observed.invariant_changed = true;
  }
  return observed;
}

/// What a target must hold; nothing where that depends on when it failed.
std::optional<Memory> RunChecker::MemoryAfter(const BurnRun& run, Guid name, const Before& before) {
  const auto is_undetected = [&](const OccurredFault& occurred) {
    return occurred.is_undetected && occurred.device == name;
  };
  if (std::ranges::any_of(run.occurred, is_undetected)) return {};
  const bool is_refused = !before.refusal.empty();
  const bool is_left_alone = !before.is_there || _scenario.check_only ||
                             (is_refused && _scenario.Slots() == SlotKind::BOOT_RECORDS);
  if (is_left_alone) return before.memory;
  // A device that failed, or whose run ended, holds a part of the image.
  const bool is_reported = std::ranges::count(run.reported, name) > 0;
  if (is_refused ? !run.occurred.empty() : !run.is_well || is_reported) return {};
  device::Outcome result = BurnOf(before.node).After(before.memory, ObservedBy(run, name, before));
  if (!is_refused) {
    ++_statistics.burnt;
    if (!result.refusal.empty()) Fail(DeviceName(name) + " is to be refused: " + result.refusal);
  }
  return std::move(result.memory);
}

void RunChecker::CheckMemories(const BurnRun& run) {
  for (const auto& [name, before] : run.targets) {
    if (before.node == 0) continue;
    const sim::Device& device = *_scenario.fabric.Find(before.node);
    for (const OccurredFault& occurred : run.occurred) {
      if (occurred.planned.kind == FaultKind::WRITE_WRONG && occurred.device == name)
        _wrong.insert(before.node);
    }
    if (ViolationsOf(device) > before.violations && !_wrong.contains(before.node)) {
      Fail(DeviceName(name) + ": bits are set without an erase");
    }
    const std::optional<Memory> expected = MemoryAfter(run, name, before);
    if (!expected) continue;
    const Memory after = MemoryOf(device, _scenario.image);
    _statistics.bytes += after.bytes.size();
    if (after.bytes != expected->bytes) {
      const std::size_t at = FirstDifference(expected->bytes, after.bytes);
      Fail(Text(DeviceName(name), " holds ", std::hex, std::uint32_t{after.bytes[at]}, " at ", at,
                " instead of ", std::uint32_t{expected->bytes[at]}));
    }
  }
}

/// A device that booted at the start boots after any run.
void RunChecker::CheckBoot(const BurnRun& run) {
  for (const OccurredFault& occurred : run.occurred) {
    if (occurred.is_undetected) _excused.insert(run.targets.at(*occurred.device).node);
  }
  for (auto& [node, judge] : _judges) {
    if (_excused.contains(node)) continue;
    const Memory memory = MemoryOf(*_scenario.fabric.Find(node), _scenario.image);
    judge.SetAll(memory.bytes);
    const device::Verdict verdict = judge.CurrentVerdict();
    ++_statistics.judged;
    if (_out) *_out << DeviceName(node) << ": " << Describe(verdict) << "\n";
    if (verdict.IsSafe()) continue;
    const std::string row = RowOf(run, node, verdict, memory);
    if (row.empty()) {
      Fail(Text(DeviceName(node), " may not boot: ", Describe(verdict)));
      continue;
    }
    ++_statistics.rows[row];
    _statistics.row_cases[row] = _scenario.seed;
    _excused.insert(node);
  }
}

/// Whether a slot holds all that a burn leaves there, and only a CRC over the first bytes of its
/// boot record is wrong: it is computed while they are spoilt.
bool RunChecker::HoldsCrcOverRecord(Guid node, std::uint32_t slot, const Memory& memory) const {
  const Burn burn = BurnOf(node);
  if (!burn.HasCrcOverDeferredBytes()) return false;
  Memory burnt = memory;
  burn.BurnSlot(burnt, slot);
  return burnt.bytes == memory.bytes;
}

/// The row of docs/fail-safety.md by which the device may not boot; empty where there is none.
std::string RunChecker::RowOf(const BurnRun& run, Guid node, const device::Verdict& verdict,
                              const Memory& memory) const {
  const auto target =
      std::ranges::find(run.targets, node, [](const auto& of) { return of.second.node; });
  if (!verdict.invariant_is_whole) {
    if (target == run.targets.end()) return "";
    const auto& [name, before] = *target;
    if (!ObservedBy(run, name, before).invariant_changed) return "";
    if (verdict.IsSafeButForInvariantSector()) return trials::INVARIANT_ROW;
  }
  bool is_torn = false;
  bool has_crc_over_record = false;
  for (const std::uint32_t slot : {0u, 1u}) {
    if (!verdict.slots[slot].BootsBroken()) continue;
    if (HoldsCrcOverRecord(node, slot, memory)) {
      has_crc_over_record = true;
      continue;
    }
    is_torn = true;
    // The record of an image that is known is not torn.
    const std::uint32_t record = *_scenario.image.slots[slot].image;
    const auto holds = [&](const device::Bytes& known) { return memory.Has(record, known); };
    if (std::ranges::any_of(_scenario.boot_records, holds)) return "";
  }
  if (_scenario.Slots() != SlotKind::BOOT_RECORDS || !is_torn) {
    return has_crc_over_record ? COVERED_ROW : _scenario.row;
  }
  // A burn that went through to its end leaves no torn record.
  const bool is_reported =
      target != run.targets.end() && std::ranges::count(run.reported, target->first) > 0;
  if (run.is_well && !is_reported) return "";
  return TORN_ROW;
}

/// Whatever was injected before: every target that is reachable and boots can be burnt.
void RunChecker::CheckLast(const BurnRun& run) {
  for (const auto& [name, before] : run.targets) {
    if (before.node == 0 || _excused.contains(before.node)) continue;
    const bool was_good =
        _scenario.burn == BurnKind::PLAIN || _scenario.judges.contains(before.node);
    if (was_good && std::ranges::count(run.reported, name) > 0) {
      Fail(DeviceName(name) + " cannot be burnt again");
    }
  }
}

}  // namespace soak
