#include "Player.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <set>

#include "utils.h"

namespace soak {

namespace {

/// A run takes milliseconds; a busy machine may take its time.
constexpr std::chrono::seconds LIMIT{20};
constexpr char SUCCEEDED[] = "-I- BURN SUCCEEDED\n";
constexpr char INVARIANT_ROW[] = "rewriting the invariant sector";
constexpr char TORN_ROW[] = "a torn boot record that adds up by chance";
/// The request that asks for all devices, and the second one for boot records.
constexpr std::size_t LIST_REQUEST = 2;
constexpr std::size_t SECOND_RECORDS_REQUEST = 4;

using Chips = std::map<u_int8_t, DataVec>;

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

std::size_t FirstDifference(const DataVec& left, const DataVec& right) {
  return static_cast<std::size_t>(std::ranges::mismatch(left, right).in1 - left.begin());
}

/// The devices that the console tells as failed; in the order told.
std::vector<Guid> ToldIn(const std::string& output) {
  const std::string head = "\r-E- BURN FAILED:0x";
  std::vector<Guid> told;
  for (std::size_t at = 0; (at = output.find(head, at)) != std::string::npos;) {
    at += head.size();
    // The last line of a burner that was killed may be cut.
    if (output.find('\n', at) == std::string::npos) break;
    told.push_back(std::stoull(output.substr(at, 16), nullptr, 16));
  }
  return told;
}

/// The text that ended the run for all devices, the last line; empty where none did.
std::string EndOf(const std::string& output) {
  const std::string head = "\r-E- BURN FAILED:ALL:";
  const std::size_t start = output.rfind(head);
  if (start == std::string::npos || !output.ends_with("\n")) return "";
  return output.substr(start + head.size(), output.size() - start - head.size() - 1);
}

std::string AssertionOf(const std::string& errors) {
  const std::string head = ": Assertion `";
  const std::string tail = "' failed.\n";
  const std::size_t start = errors.rfind(head);
  if (start == std::string::npos || !errors.ends_with(tail)) return "";
  return errors.substr(start + head.size(), errors.size() - tail.size() - start - head.size());
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

/// A change of a device's memory while a run goes on.
struct Change {
  sim::Operation::Kind kind;
  Guid node;
  u_int8_t chip;
  u_int32_t offset;
  u_int32_t size;
};

/// One story in hand.
class Stage {
 public:
  Stage(faults::Server& server, const std::string& program, const std::string& file, Story& story,
        std::ostream* out, Account& account)
      : _server(server),
        _program(program),
        _file(file),
        _story(story),
        _out(out),
        _account(account) {}

  void Play(bool spoils) {
    Dice dice(_story.seed + 0x50AC);
    Show();
    if (!_story.refusal.empty()) return PlayRefusal(spoils);
    const u_int32_t disturbed = dice.OneOf<u_int32_t>({0, 1, 1, 1, 2, 3});
    for (u_int32_t i = 0; i < disturbed && _account.failure.empty(); ++i) {
      Run(MakeHits(_story.requests, dice), false, false);
      if (dice.Chance(50)) PowerBack();
    }
    PowerBack();
    if (_account.failure.empty()) Run({}, true, spoils);
  }

 private:
  /// What is known of a target before a run.
  struct Before {
    Guid node = 0;
    bool is_there = false;
    Memory memory;
    View view;
    std::string refusal;  ///< why it will not be burnt
    std::vector<Range> writable;
    std::size_t violations = 0;
  };

  /// One run in hand.
  struct Now {
    std::map<Guid, Before> targets;  ///< by name
    std::map<Guid, Chips> chips;     ///< of all devices, by node
    faults::Outcome outcome;
    std::vector<Fired> fired;
    std::vector<Change> changes;
    std::map<Guid, std::size_t> failed_at;  ///< the request whose answer tells so, by name
    std::vector<Guid> told;
    bool is_well = false;
    std::string end;  ///< a column of the table
  };

  void Fail(const std::string& text) {
    if (_account.failure.empty()) _account.failure = Text("run ", _account.runs, ": ", text);
  }
  std::string Name(Guid guid) const { return "device " + sim::HexGuid(guid); }

  void PowerBack() {
    for (auto& [guid, device] : _story.fabric.Devices()) device.has_power = true;
  }

  Oracle OracleOf(Guid node) const {
    return Oracle(_story.image, _story.burn, *_story.fabric.Find(node));
  }

  faults::Outcome Burn(faults::Disturber& disturber) {
    std::vector<std::string> words = {_program, "-f", _file};
    words.insert(words.end(), _story.switches.begin(), _story.switches.end());
    words.insert(words.end(), {"-s", _server.Name(_story.server_type)});
    return _server.Run(words, _story.fabric, disturber, LIMIT);
  }

  /// One byte of one device, given or not.
  void Spoil() {
    Dice dice(_story.seed);
    auto& devices = _story.fabric.Devices();
    sim::Device& device = std::next(devices.begin(), dice.Below(devices.size()))->second;
    Memory memory = MemoryOf(device, _story.image);
    memory.bytes[dice.Below(memory.bytes.size())] ^= 0x10;
    Load(device, _story.image, memory);
  }

  // ---- A story that must be refused

  void PlayRefusal(bool spoils) {
    ++_account.runs;
    std::map<Guid, Chips> before;
    for (const auto& [guid, device] : _story.fabric.Devices()) before[guid] = ChipsOf(device);
    u_int32_t changes = 0;
    _story.fabric.observer = [&changes](const sim::Operation&) { ++changes; };
    Trouble none(_story, _story.fabric, {});
    const faults::Outcome outcome = Burn(none);
    _story.fabric.observer = nullptr;
    if (spoils) Spoil();
    Show(outcome, {});
    if (!outcome.in_time) Fail("it does not end by itself");
    if (!outcome.complaint.empty()) Fail(outcome.complaint);
    if (!outcome.errors.empty()) Fail("standard error: " + outcome.errors);
    const std::string end = EndOf(outcome.output);
    if (outcome.status != 1 || end.find(_story.refusal) == std::string::npos) {
      Fail(Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"", end,
                "\" instead of \"", _story.refusal, "\""));
    }
    if (changes > 0) Fail(Text(changes, " changes of what must be refused"));
    for (const auto& [guid, device] : _story.fabric.Devices()) {
      const Chips after = ChipsOf(device);
      if (after != before.at(guid)) Fail(Name(guid) + " is changed");
      for (const auto& [address, bytes] : after) _account.bytes += bytes.size();
      ++_account.left_alone;
    }
    _account.requests += outcome.requests.size();
    ++_account.ends["refused on purpose"]["ended"];
  }

  // ---- A run

  void Run(const std::vector<Hit>& hits, bool is_last, bool spoils) {
    ++_account.runs;
    Now now;
    LookBefore(now);
    sim::Fabric& fabric = _story.fabric;
    fabric.observer = [&now](const sim::Operation& operation) {
      now.changes.push_back(
          {operation.kind, operation.device, operation.chip, operation.offset, operation.size});
    };
    Trouble trouble(_story, fabric, hits);
    now.outcome = Burn(trouble);
    fabric.observer = nullptr;
    fabric.faults = sim::FaultLayer();
    now.fired = trouble.Happened();
    if (spoils) Spoil();
    Show(now.outcome, now.fired);
    now.told = ToldIn(now.outcome.output);
    _account.requests += now.outcome.requests.size();

    CheckEnd(now);
    FindFailures(now);
    CheckTold(now);
    CheckRequests(now);
    CheckChanges(now);
    CheckOthers(now);
    CheckMemories(now);
    CheckBoot(now);
    if (is_last) CheckLast(now);
    for (const Fired& fired : now.fired) ++_account.ends[fired.hit.Name()][now.end];
    if (now.fired.empty()) ++_account.ends["nothing"][now.end];
    if (_out) *_out << "=> " << now.end << "\n\n";
  }

  void LookBefore(Now& now) {
    for (const auto& [guid, device] : _story.fabric.Devices()) now.chips[guid] = ChipsOf(device);
    for (const Guid name : _story.targets) {
      Before& before = now.targets[name];
      const sim::Device* device = _story.fabric.Find(name);
      if (device == nullptr) continue;
      before.node = device->node_guid;
      before.is_there = device->has_power;
      before.memory = MemoryOf(*device, _story.image);
      const Oracle oracle = OracleOf(before.node);
      before.view = oracle.Look(before.memory);
      before.refusal = oracle.After(before.memory).refusal;
      before.writable = oracle.Writable(before.memory);
      for (const auto& [address, chip] : device->chips)
        before.violations += chip.Violations().size();
    }
  }

  /// How the run must end when nothing disturbs it; empty where it must go well.
  std::string EndByItself(const Now& now) const {
    u_int32_t there = 0;
    u_int32_t refused = 0;
    for (const auto& [name, before] : now.targets) {
      there += before.is_there ? 1 : 0;
      refused += before.is_there && !before.refusal.empty() ? 1 : 0;
    }
    if (there == 0) return "No more accessible devices";
    if (refused < there) return "";
    return _story.burn == soak::Burn::RECORDS ? "All devices can't be failsafe burnt"
                                              : "No more accessible devices";
  }

  void CheckEnd(Now& now) {
    const faults::Outcome& outcome = now.outcome;
    if (!outcome.in_time) Fail("it does not end by itself");
    if (!outcome.complaint.empty()) Fail(outcome.complaint);
    const std::string text = EndOf(outcome.output);
    const std::string assertion = AssertionOf(outcome.errors);
    now.is_well = outcome.status == 0 && outcome.output.ends_with(SUCCEEDED);

    std::vector<std::string> ends;
    std::vector<std::string> asserts;
    const std::string by_itself = EndByItself(now);
    bool must_fail = !by_itself.empty();
    if (must_fail) ends.push_back(by_itself);
    int signal = 0;
    for (const Fired& fired : now.fired) {
      ends.insert(ends.end(), fired.ends.begin(), fired.ends.end());
      asserts.insert(asserts.end(), fired.asserts.begin(), fired.asserts.end());
      must_fail = must_fail || fired.must_fail;
      if (fired.signal != 0) signal = fired.signal;
    }
    const auto may_end = [&](const std::string& end) { return text.starts_with(end); };
    const bool has_ended = outcome.status == 1 && std::ranges::any_of(ends, may_end);
    const bool has_aborted =
        outcome.signal == SIGABRT && std::ranges::count(asserts, assertion) > 0;
    bool is_right = has_ended || has_aborted || (now.is_well && !must_fail);
    // A burner that was killed while it waited cannot have ended in another way.
    if (signal != 0) is_right = outcome.signal == signal;
    now.end = now.is_well   ? "succeeded"
              : has_aborted ? "aborted"
              : signal != 0 ? "killed"
                            : "ended";
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
  void FindFailures(Now& now) {
    const auto fails = [&now](Guid name, std::size_t at) { now.failed_at.try_emplace(name, at); };
    for (const auto& [name, before] : now.targets) {
      if (!before.is_there) fails(name, LIST_REQUEST);
      // Those of a flash end the run.
      if (before.is_there && !before.refusal.empty() && _story.burn == soak::Burn::RECORDS) {
        fails(name, SECOND_RECORDS_REQUEST);
      }
    }
    for (const Fired& fired : now.fired) {
      if (!fired.device) continue;
      if (fired.hit.act == Act::WRITE_WRONG && !fired.is_silent) {
        fails(*fired.device, fired.hit.at + 1);
      }
      if (fired.request.kind == faults::Kind::VERIFY && !fired.ends.empty()) {
        fails(*fired.device, fired.hit.at);
      }
    }
    for (std::size_t i = 0; i < now.outcome.requests.size(); ++i) {
      const auto request = faults::Understand(now.outcome.requests[i], "", false);
      const std::vector<std::string> elements = ElementsOf(now.outcome.answers[i]);
      if (elements.size() != request.devices.size()) continue;
      for (std::size_t j = 0; j < elements.size(); ++j) {
        if (elements[j].starts_with("ERROR:")) fails(request.devices[j], i);
      }
    }
  }

  /// Who failed is told, once, and nobody else.
  void CheckTold(const Now& now) {
    GuidSet explained;
    bool any_may_fail = false;
    for (const auto& [name, at] : now.failed_at) explained.insert(name);
    for (const auto& [name, before] : now.targets) {
      if (!before.refusal.empty()) explained.insert(name);
    }
    for (const Fired& fired : now.fired) {
      any_may_fail = any_may_fail || fired.may_lose_all;
      if (fired.is_misread && fired.device) explained.insert(*fired.device);
    }
    GuidSet seen;
    for (const Guid name : now.told) {
      if (!seen.insert(name).second) Fail(Name(name) + " is told as failed twice");
      if (!now.targets.contains(name)) Fail(Name(name) + " was not given, and is told as failed");
      if (!any_may_fail && !explained.contains(name)) {
        Fail(Name(name) + " is told as failed for nothing");
      }
    }
    for (const auto& [name, at] : now.failed_at) {
      const bool was_heard = now.is_well || at + 1 < now.outcome.requests.size();
      if (was_heard && !seen.contains(name)) Fail(Name(name) + " failed, and nobody is told");
    }
  }

  void CheckRequests(const Now& now) {
    for (std::size_t i = 0; i < now.outcome.requests.size(); ++i) {
      const std::string& text = now.outcome.requests[i];
      const auto request = faults::Understand(text, "", false);
      const bool is_opening = i <= LIST_REQUEST;
      if (request.devices.empty() != is_opening) Fail("names no device, or too early: " + text);
      for (std::size_t j = 0; j < request.devices.size(); ++j) {
        const Guid name = request.devices[j];
        if (!now.targets.contains(name)) Fail("a device that was not given is named: " + text);
        if (j > 0 && request.devices[j - 1] >= name) Fail("devices out of order: " + text);
        const auto failed = now.failed_at.find(name);
        if (failed != now.failed_at.end() && failed->second < i) {
          Fail(Text("request ", i + 1, " names a failed device: ", text));
        }
      }
    }
  }

  /// Every write and erase belongs to the image, and to a device that was given.
  void CheckChanges(const Now& now) {
    std::map<Guid, const Before*> by_node;
    for (const auto& [name, before] : now.targets) {
      if (before.is_there) by_node[before.node] = &before;
    }
    for (const Change& change : now.changes) {
      const auto found = by_node.find(change.node);
      if (found == by_node.end()) {
        Fail(Name(change.node) + " was not given, and is written");
        continue;
      }
      u_int64_t base = 0;
      bool is_mapped = _story.image.map.empty() && change.chip == 0;
      for (const Mapped& chip : _story.image.map) {
        is_mapped = chip.chip == change.chip;
        if (is_mapped) break;
        base += chip.size;
      }
      const u_int64_t addr = base + change.offset;
      const bool is_erase = change.kind == sim::Operation::ERASE;
      const bool belongs =
          is_mapped && !_story.check_only &&
          std::ranges::any_of(found->second->writable, [&](const Range& range) {
            return is_erase ? range.Meets(addr, change.size) : range.Holds(addr, change.size);
          });
      if (!belongs) {
        Fail(Text(is_erase ? "erases" : "writes", " ", change.size, " bytes at ", std::hex, addr,
                  " that are no part of the image"));
      }
    }
  }

  /// What was not given, and what the image does not map.
  void CheckOthers(const Now& now) {
    GuidSet given;
    for (const auto& [name, before] : now.targets) given.insert(before.node);
    for (const auto& [guid, device] : _story.fabric.Devices()) {
      const Chips& before = now.chips.at(guid);
      if (!given.contains(guid)) {
        if (ChipsOf(device) != before) Fail(Name(guid) + " was not given, and is changed");
        for (const auto& [address, bytes] : before) _account.bytes += bytes.size();
        ++_account.left_alone;
      } else if (DifferBeyond(_story.image, device, before)) {
        Fail(Name(guid) + " is changed where the image has nothing");
      }
    }
  }

  /// What the burner took the device for, by the answers that it got.
  View Seen(const Now& now, Guid name, const Before& before) const {
    View view = before.view;
    for (const Fired& fired : now.fired) {
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

  void CheckMemories(const Now& now) {
    const GuidSet told(now.told.begin(), now.told.end());
    for (const auto& [name, before] : now.targets) {
      if (before.node == 0) continue;
      const sim::Device& device = *_story.fabric.Find(before.node);
      if (told.contains(name)) ++_account.failed;
      std::size_t violations = 0;
      for (const auto& [address, chip] : device.chips) violations += chip.Violations().size();
      for (const Fired& fired : now.fired) {
        if (fired.hit.act == Act::WRITE_WRONG && fired.device == name) _wrong.insert(before.node);
      }
      if (violations > before.violations && !_wrong.contains(before.node)) {
        Fail(Name(name) + ": bits are set without an erase");
      }
      const bool is_left_alone =
          !before.refusal.empty() && _story.burn == soak::Burn::RECORDS && before.is_there;
      if ((!now.is_well || told.contains(name)) && !is_left_alone) continue;
      const bool is_silent = std::ranges::any_of(now.fired, [given = name](const Fired& fired) {
        return fired.is_silent && fired.device == given;
      });
      if (is_silent) continue;
      if (!is_left_alone) ++_account.burnt;
      Memory expected = before.memory;
      if (!is_left_alone && !_story.check_only) {
        const Result result = OracleOf(before.node).After(before.memory, Seen(now, name, before));
        if (!result.refusal.empty()) Fail(Name(name) + " is to be refused: " + result.refusal);
        expected = result.memory;
      }
      const Memory after = MemoryOf(device, _story.image);
      _account.bytes += after.bytes.size();
      if (after.bytes != expected.bytes) {
        const std::size_t at = FirstDifference(expected.bytes, after.bytes);
        Fail(Text(Name(name), " holds ", std::hex, u_int32_t{after.bytes[at]}, " at ", at,
                  " instead of ", u_int32_t{expected.bytes[at]}));
      }
    }
  }

  /// Whatever happened, a device that booted boots.
  void CheckBoot(const Now& now) {
    for (const Fired& fired : now.fired) {
      if (fired.is_silent) _excused.insert(now.targets.at(*fired.device).node);
    }
    for (const auto& [node, rule] : _story.rules) {
      if (_excused.contains(node)) continue;
      const sim::Device& device = *_story.fabric.Find(node);
      const Memory memory = MemoryOf(device, _story.image);
      const BootRule::Verdict verdict = rule.Judge(_story.image, device, memory);
      ++_account.judged;
      if (_out) *_out << Name(node) << ": " << verdict.Text() << "\n";
      if (verdict.IsGood()) continue;
      const std::string row = RowOf(now, node, rule, verdict, memory);
      if (row.empty()) {
        Fail(Text(Name(node), " may not boot: ", verdict.Text()));
        continue;
      }
      ++_account.rows[row];
      _account.row_cases[row] = _story.seed;
      _excused.insert(node);
    }
  }

  /// What of docs/fail-safety.md says that such a device may not boot; empty where nothing does.
  std::string RowOf(const Now& now, Guid node, const BootRule& rule,
                    const BootRule::Verdict& verdict, const Memory& memory) const {
    BootRule::Verdict slots = verdict;
    slots.invariant_is_whole = true;
    if (slots.IsGood()) {
      for (const auto& [name, before] : now.targets) {
        if (before.node == node && Seen(now, name, before).invariant_changed) return INVARIANT_ROW;
      }
    }
    if (!_story.row.empty() && _story.row != INVARIANT_ROW) return _story.row;
    // What nothing disturbed is torn by nothing.
    if (_story.burn != soak::Burn::RECORDS || now.fired.empty()) return "";
    for (const u_int32_t slot : {0u, 1u}) {
      const bool is_broken = verdict.slots[slot] == BootRule::BROKEN;
      if (is_broken && rule.KnowsRecord(memory, slot)) return "";
    }
    return std::ranges::count(verdict.slots, BootRule::BROKEN) > 0 ? TORN_ROW : "";
  }

  /// Whatever went before: all that are there and boot are burnt now.
  void CheckLast(const Now& now) {
    for (const auto& [name, before] : now.targets) {
      if (before.node == 0 || _excused.contains(before.node)) continue;
      const bool was_good =
          _story.burn == soak::Burn::GENERIC || _story.rules.contains(before.node);
      if (was_good && std::ranges::count(now.told, name) > 0) {
        Fail(Name(name) + " cannot be burnt again");
      }
    }
  }

  // ---- For --case

  void Show() const {
    if (_out == nullptr) return;
    *_out << "story " << std::dec << _story.seed << ": " << _story.kind << ", server "
          << _story.server_type << ", version " << _story.fabric.facts.ifc_version << ", at once "
          << _story.fabric.facts.multi_max << "\n"
          << _story.text << "\nfwpush";
    for (const std::string& word : _story.switches) *_out << " " << word;
    *_out << "\n";
    for (const auto& [guid, device] : _story.fabric.Devices()) {
      *_out << Name(guid) << (IsGiven(guid) ? ", given" : "") << ", ports";
      for (const Guid port : device.port_guids) *_out << " " << sim::HexGuid(port);
      *_out << ", system " << sim::HexGuid(device.sys_guid);
      for (const auto& [address, chip] : device.chips) {
        *_out << ", chip " << std::hex << u_int32_t{address} << " of " << chip.Size() << " bytes";
        if (chip.IsFlash()) *_out << " in sectors of " << chip.SectorSize();
      }
      const auto rule = _story.rules.find(guid);
      if (rule != _story.rules.end()) {
        const Memory memory = MemoryOf(device, _story.image);
        *_out << "; " << rule->second.Judge(_story.image, device, memory).Text();
      }
      *_out << std::dec << "\n";
    }
    if (!_story.refusal.empty()) *_out << "to be refused: " << _story.refusal << "\n";
    *_out << "\n";
  }
  bool IsGiven(Guid node) const {
    return std::ranges::any_of(_story.targets, [&](Guid name) {
      const sim::Device* device = _story.fabric.Find(name);
      return device && device->node_guid == node;
    });
  }

  void Show(const faults::Outcome& outcome, const std::vector<Fired>& fired) const {
    if (_out == nullptr) return;
    *_out << std::dec << "run " << _account.runs << "\n";
    for (std::size_t i = 0; i < outcome.requests.size(); ++i) {
      *_out << std::setw(4) << i + 1 << " > " << outcome.requests[i] << "\n     < "
            << outcome.answers[i] << "\n";
      for (const Fired& hit : fired) {
        if (hit.hit.at != i) continue;
        *_out << "     *** " << hit.hit.Name();
        if (hit.device) *_out << " of " << sim::HexGuid(*hit.device);
        *_out << "\n";
      }
    }
    *_out << outcome.output << outcome.errors << "status " << std::dec << outcome.status
          << ", signal " << outcome.signal << "\n";
  }

  faults::Server& _server;
  std::string _program;
  std::string _file;
  Story& _story;
  std::ostream* _out;
  Account& _account;
  GuidSet _wrong;    ///< nodes that once took a wrong bit
  GuidSet _excused;  ///< nodes that need not boot any more
};

}  // namespace

Account& Account::operator+=(const Account& other) {
  stories += other.stories;
  runs += other.runs;
  for (const auto& [kind, count] : other.kinds) kinds[kind] += count;
  for (const auto& [hit, by_end] : other.ends) {
    for (const auto& [end, count] : by_end) ends[hit][end] += count;
  }
  for (const auto& [row, count] : other.rows) rows[row] += count;
  row_cases.insert(other.row_cases.begin(), other.row_cases.end());
  burnt += other.burnt;
  failed += other.failed;
  left_alone += other.left_alone;
  judged += other.judged;
  requests += other.requests;
  bytes += other.bytes;
  if (failure.empty()) failure = other.failure;
  return *this;
}

Account Player::Play(u_int64_t seed) {
  Account account;
  account.stories = 1;
  try {
    Story story = MakeStory(seed);
    ++account.kinds[story.kind];
    const std::string file = _folder.Write(Text("story-", seed, ".img"), story.text);
    Stage(_server, _program, file, story, _out, account).Play(_spoils);
    std::filesystem::remove(file);
  } catch (const BraidError& error) {
    account.failure = error.Des();
  } catch (const std::exception& error) {
    account.failure = error.what();
  }
  return account;
}

}  // namespace soak
