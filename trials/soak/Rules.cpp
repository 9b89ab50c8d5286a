#include "trials/soak/Rules.h"

#include <algorithm>
#include <csignal>

#include "src/utils.h"
#include "trials/Console.h"

namespace soak {

namespace {

constexpr char INVARIANT_ROW[] = "rewriting the invariant sector";
constexpr char COVERED_ROW[] = "a CRC over the first four bytes of a slot";
constexpr char TORN_ROW[] = "a torn boot record that adds up by chance";
/// The request that asks for all devices, and the second one for boot records.
constexpr std::size_t LIST_REQUEST = 2;
constexpr std::size_t SECOND_RECORDS_REQUEST = 4;

Chips ChipsOf(const sim::Device& device) {
  Chips chips;
  for (const auto& [address, chip] : device.chips) {
    chips[address] = DataVec(chip.Bytes().begin(), chip.Bytes().end());
  }
  return chips;
}

/// Whether devices differ in what the image does not map.
bool DifferBeyond(const Image& image, const sim::Device& device, const Chips& before) {
  for (const auto& [address, chip] : device.chips) {
    std::size_t from = image.map.empty() && address == 0 ? chip.Size() : 0;
    for (const Mapped& mapped : image.map) {
      if (mapped.chip == address) from = mapped.size;
    }
    const DataVec& old = before.at(address);
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

std::size_t FirstDifference(const DataVec& left, const DataVec& right) {
  return static_cast<std::size_t>(std::ranges::mismatch(left, right).in1 - left.begin());
}

/// The elements of an answer; those in braces without them.
std::vector<std::string> ElementsOf(const std::string& answer) {
  std::vector<std::string> elements;
  int depth = 0;
  bool is_inside = false;
  for (const char c : answer) {
    if (c == '{' && depth++ == 0) {
      elements.emplace_back();
      continue;
    }
    if (c == '}' && --depth == 0) {
      is_inside = false;
      continue;
    }
    if (depth == 0 && c == ' ') {
      is_inside = false;
      continue;
    }
    if (depth == 0 && !is_inside) {
      elements.emplace_back();
      is_inside = true;
    }
    elements.back() += c;
  }
  return elements;
}

}  // namespace

std::string DeviceName(Guid guid) { return "device " + sim::HexGuid(guid); }

Run Rules::Begin() const {
  Run run;
  for (const auto& [guid, device] : _story.fabric.Devices()) run.chips[guid] = ChipsOf(device);
  // What it would do to devices is no matter.
  if (!_story.refusal.empty()) return run;
  for (const Guid name : _story.targets) {
    Before& before = run.targets[name];
    const sim::Device* device = _story.fabric.Find(name);
    if (device == nullptr) continue;
    before.node = device->node_guid;
    before.is_there = device->has_power;
    before.memory = MemoryOf(*device, _story.image);
    const Oracle oracle = OracleOf(before.node);
    before.view = oracle.Look(before.memory);
    before.refusal = oracle.After(before.memory).refusal;
    before.violations = ViolationsOf(*device);
  }
  return run;
}

void Rules::Check(Run& run, bool is_last) {
  for (const faults::Report& report : faults::ReportsIn(run.outcome.output)) {
    run.told.push_back(report.device);
  }
  _account.requests += run.outcome.requests.size();
  _account.failed += static_cast<u_int32_t>(run.told.size());
  CheckEnd(run);
  FindFailures(run);
  CheckTold(run);
  CheckRequests(run);
  CheckChanges(run);
  CheckOthers(run);
  CheckMemories(run);
  CheckBoot(run);
  if (is_last) CheckLast(run);
  for (const Fired& fired : run.fired) ++_account.ends[fired.hit.Name()][run.end];
  if (run.fired.empty()) ++_account.ends["nothing"][run.end];
}

void Rules::CheckRefusal(const Run& run) {
  const faults::Outcome& outcome = run.outcome;
  _account.requests += outcome.requests.size();
  ++_account.ends["refused on purpose"]["ended"];
  CheckOutcome(outcome);
  if (!outcome.errors.empty()) Fail("standard error: " + outcome.errors);
  const std::string end = faults::EndOf(outcome.output);
  if (outcome.status != 1 || end.find(_story.refusal) == std::string::npos) {
    Fail(Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"", end,
              "\" instead of \"", _story.refusal, "\""));
  }
  if (!run.changes.empty()) Fail(Text(run.changes.size(), " changes of what must be refused"));
  for (const auto& [guid, device] : _story.fabric.Devices()) {
    const Chips after = ChipsOf(device);
    if (after != run.chips.at(guid)) Fail(DeviceName(guid) + " is changed");
    for (const auto& [address, bytes] : after) _account.bytes += bytes.size();
    ++_account.left_alone;
  }
}

void Rules::CheckOutcome(const faults::Outcome& outcome) {
  if (!outcome.in_time) Fail("it does not end by itself");
  if (!outcome.complaint.empty()) Fail(outcome.complaint);
}

/// How the run must end when nothing disturbs it; empty where it must go well.
std::string Rules::EndByItself(const Run& run) const {
  u_int32_t there = 0;
  u_int32_t refused = 0;
  for (const auto& [name, before] : run.targets) {
    there += before.is_there ? 1 : 0;
    refused += before.is_there && !before.refusal.empty() ? 1 : 0;
  }
  if (there == 0) return "No more accessible devices";
  if (refused < there) return "";
  return _story.burn == BurnKind::RECORDS ? "All devices can't be failsafe burnt"
                                          : "No more accessible devices";
}

void Rules::CheckEnd(Run& run) {
  const faults::Outcome& outcome = run.outcome;
  CheckOutcome(outcome);
  const std::string text = faults::EndOf(outcome.output);
  const std::string assertion = faults::AssertionOf(outcome.errors);
  run.is_well = faults::HasSucceeded(outcome);

  std::vector<std::string> ends;
  std::vector<std::string> asserts;
  const std::string by_itself = EndByItself(run);
  bool must_fail = !by_itself.empty();
  if (must_fail) ends.push_back(by_itself);
  int signal = 0;
  for (const Fired& fired : run.fired) {
    ends.insert(ends.end(), fired.ends.begin(), fired.ends.end());
    asserts.insert(asserts.end(), fired.asserts.begin(), fired.asserts.end());
    must_fail = must_fail || fired.must_fail;
    if (fired.signal != 0) signal = fired.signal;
  }
  const auto may_end = [&](const std::string& end) { return text.starts_with(end); };
  const bool has_ended = outcome.status == 1 && std::ranges::any_of(ends, may_end);
  const bool has_aborted = outcome.signal == SIGABRT && std::ranges::count(asserts, assertion) > 0;
  bool is_right = has_ended || has_aborted || (run.is_well && !must_fail);
  // A burner that was killed while it waited cannot have ended in another way.
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

/// When the burner was told of each device that it is lost.
void Rules::FindFailures(Run& run) const {
  const auto fails = [&run](Guid name, std::size_t at) { run.failed_at.try_emplace(name, at); };
  for (const auto& [name, before] : run.targets) {
    if (!before.is_there) fails(name, LIST_REQUEST);
    // Those of a flash end the run.
    if (before.is_there && !before.refusal.empty() && _story.burn == BurnKind::RECORDS) {
      fails(name, SECOND_RECORDS_REQUEST);
    }
  }
  for (const Fired& fired : run.fired) {
    if (fired.loses_device_at) fails(*fired.device, *fired.loses_device_at);
  }
  for (std::size_t i = 0; i < run.outcome.requests.size(); ++i) {
    const auto request = faults::Understand(run.outcome.requests[i], "", false);
    const std::vector<std::string> elements = ElementsOf(run.outcome.answers[i]);
    if (elements.size() != request.devices.size()) continue;
    for (std::size_t j = 0; j < elements.size(); ++j) {
      if (elements[j].starts_with("ERROR:")) fails(request.devices[j], i);
    }
  }
}

/// Who failed is told, once, and nobody else.
void Rules::CheckTold(const Run& run) {
  GuidSet explained;
  bool any_may_fail = false;
  for (const auto& [name, at] : run.failed_at) explained.insert(name);
  for (const auto& [name, before] : run.targets) {
    if (!before.refusal.empty()) explained.insert(name);
  }
  for (const Fired& fired : run.fired) {
    any_may_fail = any_may_fail || fired.may_lose_all;
    if (fired.is_misread && fired.device) explained.insert(*fired.device);
  }
  GuidSet seen;
  for (const Guid name : run.told) {
    if (!seen.insert(name).second) Fail(DeviceName(name) + " is told as failed twice");
    if (!run.targets.contains(name)) {
      Fail(DeviceName(name) + " was not given, and is told as failed");
    }
    if (!any_may_fail && !explained.contains(name)) {
      Fail(DeviceName(name) + " is told as failed for nothing");
    }
  }
  for (const auto& [name, at] : run.failed_at) {
    const bool was_heard = run.is_well || at + 1 < run.outcome.requests.size();
    if (was_heard && !seen.contains(name)) Fail(DeviceName(name) + " failed, and nobody is told");
  }
}

void Rules::CheckRequests(const Run& run) {
  for (std::size_t i = 0; i < run.outcome.requests.size(); ++i) {
    const std::string& text = run.outcome.requests[i];
    const auto request = faults::Understand(text, "", false);
    const bool is_opening = i <= LIST_REQUEST;
    if (request.devices.empty() != is_opening) Fail("names no device, or too early: " + text);
    for (std::size_t j = 0; j < request.devices.size(); ++j) {
      const Guid name = request.devices[j];
      if (!run.targets.contains(name)) Fail("a device that was not given is named: " + text);
      if (j > 0 && request.devices[j - 1] >= name) Fail("devices out of order: " + text);
      const auto failed = run.failed_at.find(name);
      if (failed != run.failed_at.end() && failed->second < i) {
        Fail(Text("request ", i + 1, " names a failed device: ", text));
      }
    }
  }
}

/// Nothing is written to devices that were not given, and to the others only the image, in its
/// order.
void Rules::CheckChanges(const Run& run) {
  GuidSet given;
  for (const auto& [name, before] : run.targets) {
    if (!before.is_there) continue;
    given.insert(before.node);
    CheckOrder(run, name, before);
  }
  for (const Change& change : run.changes) {
    if (!given.contains(change.node)) {
      Fail(DeviceName(change.node) + " was not given, and is written");
    }
  }
}

/// In the linear memory; behind its end where the image does not map it.
u_int64_t Rules::AddressOf(const Change& change) const {
  u_int64_t base = 0;
  if (_story.image.map.empty()) return change.chip == 0 ? change.offset : UNPLACED;
  for (const Mapped& chip : _story.image.map) {
    const bool is_mapped = u_int64_t{change.offset} + change.size <= chip.size;
    if (chip.chip == change.chip) return is_mapped ? base + change.offset : UNPLACED;
    base += chip.size;
  }
  return UNPLACED;
}

/// Every write and erase belongs to a step, and none to one that is over.
void Rules::CheckOrder(const Run& run, Guid name, const Before& before) {
  std::vector<Step> steps;
  if (!_story.check_only) {
    steps = OracleOf(before.node).Steps(before.memory, Seen(run, name, before));
  }
  auto step = steps.begin();
  for (const Change& change : run.changes) {
    if (change.node != before.node) continue;
    const u_int64_t addr = AddressOf(change);
    const bool is_erase = change.kind == sim::Operation::ERASE;
    const auto allows = [&](const Step& of) {
      return std::ranges::any_of(of.ranges, [&](const Range& range) {
        return is_erase ? range.Meets(addr, change.size) : range.Holds(addr, change.size);
      });
    };
    const auto next = std::find_if(step, steps.end(), allows);
    if (next == steps.end()) {
      const bool is_over = std::any_of(steps.begin(), step, allows);
      return Fail(Text(DeviceName(name), is_erase ? ": erases " : ": writes ", change.size,
                       " bytes at ", std::hex, addr,
                       is_over ? OUT_OF_ORDER + step->name : " that are no part of the image"));
    }
    step = next;
  }
}

/// What was not given, and what the image does not map.
void Rules::CheckOthers(const Run& run) {
  GuidSet given;
  for (const auto& [name, before] : run.targets) given.insert(before.node);
  for (const auto& [guid, device] : _story.fabric.Devices()) {
    const Chips& before = run.chips.at(guid);
    if (!given.contains(guid)) {
      if (ChipsOf(device) != before) Fail(DeviceName(guid) + " was not given, and is changed");
      for (const auto& [address, bytes] : before) _account.bytes += bytes.size();
      ++_account.left_alone;
    } else if (DifferBeyond(_story.image, device, before)) {
      Fail(DeviceName(guid) + " is changed where the image has nothing");
    }
  }
}

/// What the burner took the device for, by the answers that it got.
View Rules::Seen(const Run& run, Guid name, const Before& before) const {
  View view = before.view;
  for (const Fired& fired : run.fired) {
    if (!fired.is_misread || fired.device != name) continue;
    const u_int32_t addr = fired.request.addr;
    for (const u_int32_t slot : {0u, 1u}) {
      if (addr == _story.image.ps[slot] + SIGNATURE_OFFSET) view.is_signed[slot] = false;
    }
    const bool is_marker = addr == MARKER && fired.request.size == 4;
    if (addr < before.memory.sector_size && !is_marker) view.invariant_changed = true;
  }
  return view;
}

/// What a device that was given must hold; nothing where nobody can know.
std::optional<Memory> Rules::MemoryAfter(const Run& run, Guid name, const Before& before) {
  const auto is_silent = [&](const Fired& fired) {
    return fired.is_silent && fired.device == name;
  };
  if (std::ranges::any_of(run.fired, is_silent)) return {};
  const bool is_refused = !before.refusal.empty();
  const bool is_left_alone =
      !before.is_there || _story.check_only || (is_refused && _story.burn == BurnKind::RECORDS);
  if (is_left_alone) return before.memory;
  // What failed, and what a run that ended was about, holds as much as it got.
  const bool is_told = std::ranges::count(run.told, name) > 0;
  if (is_refused ? !run.fired.empty() : !run.is_well || is_told) return {};
  Result result = OracleOf(before.node).After(before.memory, Seen(run, name, before));
  if (!is_refused) {
    ++_account.burnt;
    if (!result.refusal.empty()) Fail(DeviceName(name) + " is to be refused: " + result.refusal);
  }
  return std::move(result.memory);
}

void Rules::CheckMemories(const Run& run) {
  for (const auto& [name, before] : run.targets) {
    if (before.node == 0) continue;
    const sim::Device& device = *_story.fabric.Find(before.node);
    for (const Fired& fired : run.fired) {
      if (fired.hit.act == Act::WRITE_WRONG && fired.device == name) _wrong.insert(before.node);
    }
    if (ViolationsOf(device) > before.violations && !_wrong.contains(before.node)) {
      Fail(DeviceName(name) + ": bits are set without an erase");
    }
    const std::optional<Memory> expected = MemoryAfter(run, name, before);
    if (!expected) continue;
    const Memory after = MemoryOf(device, _story.image);
    _account.bytes += after.bytes.size();
    if (after.bytes != expected->bytes) {
      const std::size_t at = FirstDifference(expected->bytes, after.bytes);
      Fail(Text(DeviceName(name), " holds ", std::hex, u_int32_t{after.bytes[at]}, " at ", at,
                " instead of ", u_int32_t{expected->bytes[at]}));
    }
  }
}

/// Whatever happened, a device that booted boots.
void Rules::CheckBoot(const Run& run) {
  for (const Fired& fired : run.fired) {
    if (fired.is_silent) _excused.insert(run.targets.at(*fired.device).node);
  }
  for (const auto& [node, rule] : _story.rules) {
    if (_excused.contains(node)) continue;
    const sim::Device& device = *_story.fabric.Find(node);
    const Memory memory = MemoryOf(device, _story.image);
    const BootRule::Verdict verdict = rule.Judge(_story.image, device, memory);
    ++_account.judged;
    if (_out) *_out << DeviceName(node) << ": " << verdict.Text() << "\n";
    if (verdict.IsGood()) continue;
    const std::string row = RowOf(run, node, rule, verdict, memory);
    if (row.empty()) {
      Fail(Text(DeviceName(node), " may not boot: ", verdict.Text()));
      continue;
    }
    ++_account.rows[row];
    _account.row_cases[row] = _story.seed;
    _excused.insert(node);
  }
}

/// What of docs/fail-safety.md says that such a device may not boot; empty where nothing does.
std::string Rules::RowOf(const Run& run, Guid node, const BootRule& rule,
                         const BootRule::Verdict& verdict, const Memory& memory) const {
  const auto target =
      std::ranges::find(run.targets, node, [](const auto& of) { return of.second.node; });
  if (!verdict.invariant_is_whole) {
    if (target == run.targets.end()) return "";
    const auto& [name, before] = *target;
    if (!Seen(run, name, before).invariant_changed) return "";
    BootRule::Verdict slots = verdict;
    slots.invariant_is_whole = true;
    if (slots.IsGood()) return INVARIANT_ROW;
  }
  const auto count = [&](BootRule::State state) {
    return std::ranges::count(verdict.slots, state);
  };
  if (_story.burn != BurnKind::RECORDS || count(BootRule::BROKEN) == 0) {
    return count(BootRule::MISSUMMED) > 0 ? COVERED_ROW : _story.row;
  }
  // What was burnt to the end is torn by nothing.
  const bool is_told =
      target != run.targets.end() && std::ranges::count(run.told, target->first) > 0;
  if (run.is_well && !is_told) return "";
  for (const u_int32_t slot : {0u, 1u}) {
    const bool is_broken = verdict.slots[slot] == BootRule::BROKEN;
    if (is_broken && rule.KnowsRecord(memory, slot)) return "";
  }
  return TORN_ROW;
}

/// Whatever went before: all that are there and boot are burnt run.
void Rules::CheckLast(const Run& run) {
  for (const auto& [name, before] : run.targets) {
    if (before.node == 0 || _excused.contains(before.node)) continue;
    const bool was_good = _story.burn == BurnKind::GENERIC || _story.rules.contains(before.node);
    if (was_good && std::ranges::count(run.told, name) > 0) {
      Fail(DeviceName(name) + " cannot be burnt again");
    }
  }
}

}  // namespace soak
