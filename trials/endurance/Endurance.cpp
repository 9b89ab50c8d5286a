#include "trials/endurance/Endurance.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "common/Text.h"
#include "device/Boot.h"
#include "device/ImageFile.h"
#include "device/Whole.h"

namespace endurance {

using namespace std::chrono_literals;
using common::HexGuid;
using common::Text;

namespace {

constexpr int BURNERS = 10;
constexpr int READERS = 2;
constexpr double SECONDS_OF_HOUR = 3600;

// What 24 hours must come to.
constexpr double GOAL_HOURS = 24;
constexpr std::uint64_t GOAL_PAGE_WRITES = 1'000'000;
constexpr std::uint64_t GOAL_BURNS = 10'000;
constexpr std::uint64_t GOAL_CONNECTIONS = 1'000;
constexpr double GOAL_BUSY = 0.5;

/// Bytes that the heap may grow by in the second half of a run: free lists of allocators.
constexpr std::size_t HEAP_GROWTH = 64 << 10;
/// Samples of a run that is shorter than as many hours.
constexpr std::size_t LEAST_SAMPLES = 2;
/// Bytes that a spoilt run keeps of each burn.
constexpr std::size_t KEPT = 64 << 10;
/// Of the burner's console in a failure.
constexpr std::size_t CONSOLE_END = 600;

Time RandomTime(Time least, Time most, Random& random) {
  const auto span = std::chrono::duration_cast<std::chrono::microseconds>(most - least).count();
  return least + random.Below(static_cast<std::uint64_t>(span) + 1) * 1us;
}

std::size_t ProcessDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  // One is that of the folder itself.
  return static_cast<std::size_t>(std::distance(begin(all), end(all))) - 1;
}

/// The bytes that an answer to a read has: "{ACK {data 0x12345678} ...}". None where it is another.
device::Bytes BytesOf(const std::string& answer) {
  constexpr std::string_view BEFORE_WORD = "{data 0x";
  device::Bytes bytes;
  if (!answer.starts_with("{ACK ")) return bytes;
  for (std::size_t at = answer.find(BEFORE_WORD); at != std::string::npos;
       at = answer.find(BEFORE_WORD, at)) {
    at += BEFORE_WORD.size();
    device::AppendWord(bytes, static_cast<std::uint32_t>(std::strtoul(&answer[at], nullptr, 16)));
  }
  return bytes;
}

bool Changes(const std::string& request) {
  return request.starts_with("vsI2cWrite") || request.starts_with("vsFlashWrite") ||
         request.starts_with("vsFlashErase") || request.starts_with("vsFlashStart");
}

}  // namespace

Endurance::Endurance(const Options& options) : _options(options), _machine(options.seed) {
  serve::Gateway& gateway = _machine.Serve({.reads_back = options.spoil != Spoil::READ_BACK});
  gateway.ReleaseLeftOvers();
  for (protocol::ClientId client = 1; client <= 3; ++client) gateway.Disconnected(client);
  Random seeds(options.seed + 1);
  const auto add = [&](auto work, int count) {
    for (int i = 0; i < count; ++i) _clients.push_back({work, Random(seeds.Seed())});
  };
  add(&Endurance::BurnOnce, BURNERS);
  add(&Endurance::ReadOnce, READERS);
  add(&Endurance::IntrudeOnce, 1);
  add(&Endurance::ReloadOnce, 1);
  add(&Endurance::DisturbOnce, 1);
}

void Endurance::Run() {
  _first_descriptors = _machine.system.OpenDescriptors();
  _first_process_descriptors = ProcessDescriptors();
  const auto samples =
      std::max<std::size_t>(LEAST_SAMPLES, static_cast<std::size_t>(_options.hours));
  const Time all = std::chrono::duration_cast<Time>(
      std::chrono::duration<double>(_options.hours * SECONDS_OF_HOUR));
  _samples.reserve(samples);
  for (std::size_t i = 1; i <= samples; ++i) {
    RunUntil(all / samples * i);
    CheckPause();
  }
  bool is_idle = false;
  _machine.gateway->WhenIdle([&] { is_idle = true; });
  if (!is_idle) Fail("the server says that it is not idle");
  for (const auto& wire : _machine.Wires()) {
    _counts.busy.push_back(std::chrono::duration<double>(wire->Busy()) /
                           std::chrono::duration<double>(_machine.loop.Now()));
  }
  for (const auto& target : _machine.Targets()) {
    if (target->eeprom != nullptr) _counts.page_writes += target->eeprom->PageWrites();
    if (target->flash == nullptr) continue;
    _counts.programs += target->flash->Programs();
    _counts.erases += target->flash->Erases();
  }
  _counts.prepared = _machine.Prepared();
  CheckEnd();
}

double Endurance::Hours() const {
  return std::chrono::duration<double>(_machine.loop.Now()).count() / SECONDS_OF_HOUR;
}

void Endurance::RunUntil(Time when) {
  _is_over = false;
  _machine.loop.CallAt(when, [this] { _is_over = true; });
  _turns = std::make_unique<Turns>(_machine.loop);
  for (Client& client : _clients) {
    _turns->Add([this, &client] {
      while (!_is_over) (this->*client.work)(client.random);
    });
  }
  _turns->Run();
  // What its threads keep of the heap for themselves is given back.
  _turns.reset();
}

std::unique_ptr<Connection> Endurance::Connect(Random& random) {
  ++_counts.connections;
  return std::make_unique<Connection>(_machine, *_turns, ++_last_client, random);
}

void Endurance::Close(std::unique_ptr<Connection> connection) {
  _counts.requests += connection->Requests();
  connection->Close();
}

Target& Endurance::AnyTarget(Random& random) const {
  return *_machine.Targets()[random.Below(_machine.Targets().size())];
}

// ---- Burns

void Endurance::BurnOnce(Random& random) {
  const std::vector<Target*> targets = Choose(random);
  if (!targets.empty()) BurnTargets(targets, random);
  _turns->Sleep(RandomTime(1ms, 200ms, random));
}

/// Devices of one shape that one run may burn; none where a wire has no free ones.
std::vector<Target*> Endurance::Choose(Random& random) {
  const auto& wires = _machine.Wires();
  std::vector<Target*> free;
  const std::size_t first = random.Below(wires.size());
  for (std::size_t i = 0; i < wires.size() && free.empty(); ++i) {
    const Wire& wire = *wires[(first + i) % wires.size()];
    // Its burns take hardly any time: they would be most.
    if (!wire.TakesTime() && random.Below(500) > 0) continue;
    std::ranges::copy_if(wire.targets, std::back_inserter(free), [](const Target* target) {
      return !target->is_chosen && target->service == Service::FULL;
    });
  }
  if (free.empty()) return {};
  const Target& one = *free[random.Below(free.size())];
  std::erase_if(free, [&](const Target* target) {
    return !(target->shape == one.shape) || target->boots != one.boots;
  });
  if (random.Chance(25)) {
    random.Shuffle(free);
    free.resize(1 + random.Below(free.size()));
  }
  if (one.shape.IsFlash()) free.resize(1);
  for (Target* target : free) {
    if (!_machine.Holds(*target, target->expected)) {
      Fail(HexGuid(target->Guid()) + " has changed, and nobody has burnt it");
    }
    target->is_chosen = true;
    ++target->changes;
    target->faults = target->lasting;
    target->faults.insert(target->wire->lasting.begin(), target->wire->lasting.end());
  }
  return free;
}

void Endurance::BurnTargets(const std::vector<Target*>& targets, Random& random) {
  const Shape& shape = targets.front()->shape;
  // A device that does not boot has no slot to fall back on.
  const bool is_failsafe = targets.front()->boots && !random.Chance(10);
  const auto kind = is_failsafe ? device::BurnKind::FAILSAFE : device::BurnKind::PLAIN;
  const std::string text = RandomFirmware(shape, random);
  const auto image = std::make_shared<const device::Image>(device::ParseImage(text, "new.img"));
  const std::string file = _folder.Write(Text(_turns->Current(), ".img"), text);
  std::set<protocol::Guid> guids;
  for (const Target* target : targets) guids.insert(target->Guid());

  auto connection = Connect(random);
  for (Target* target : targets) target->holder = connection->Peer();
  connection->on_answer = [&](const std::string& request, const std::string& answer) {
    if (!Changes(request) || answer != protocol::ACK) return;
    // Those that have failed before are not named any more.
    for (Target* target : targets) {
      if (request.find(HexGuid(target->Guid())) != std::string::npos) target->has_written = true;
    }
  };
  if (random.Chance(5)) connection->VanishAt(1 + random.Below(random.Chance(50) ? 20 : 300));
  const std::uint32_t log2_chunk = shape.IsFlash() ? random.Between(9, 12) : random.Between(7, 12);
  const RunEnd end = RunBurner(*connection, file, guids, is_failsafe, log2_chunk);

  ++_counts.runs;
  if (end.has_vanished) ++_counts.vanished;
  if (end.has_aborted) ++_counts.aborted;
  std::set<Fault> all_faults;
  for (const Target* target : targets) {
    all_faults.insert(target->faults.begin(), target->faults.end());
  }
  for (Target* target : targets) {
    target->has_written = false;
    target->holder.clear();
    _machine.Disarm(*target);
    for (const Fault fault :
         {Fault::DROPPED_PAGE, Fault::FLIPPED_BIT, Fault::FAILED_PROGRAM, Fault::DROPPED_PROGRAM,
          Fault::FAILED_ERASE, Fault::SPOILT_ERASE, Fault::FAILED_CALL}) {
      target->lasting.erase(fault);
    }
    const bool may_fail =
        end.has_vanished || !(end.has_aborted ? all_faults : target->faults).empty();
    JudgeBurn(*target, image, kind, end, may_fail);
  }
  if (_options.spoil == Spoil::DESCRIPTOR) {
    _machine.system.Open(targets.front()->path, serve::Access::READ);
  }
  if (_options.spoil == Spoil::MEMORY) _kept.push_back(std::make_unique<char[]>(KEPT));
  if (_options.spoil == Spoil::LEASE && _counts.runs == 20) {
    _lost = std::move(connection);
  } else {
    Close(std::move(connection));
  }
  for (Target* target : targets) {
    target->is_chosen = false;
    ++target->changes;
  }
  CheckOthers();
}

void Endurance::JudgeBurn(Target& target, const std::shared_ptr<const device::Image>& image,
                          device::BurnKind kind, const RunEnd& end, bool may_fail) {
  const std::string name = HexGuid(target.Guid());
  const auto fail = [&](const std::string& what) {
    const std::size_t size = std::min(end.console.size(), CONSOLE_END);
    Fail(Text(name, " on ", target.wire->name, ": ", what, "\n", end.error, "\n",
              end.console.substr(end.console.size() - size)));
  };
  ++_counts.burns;
  const bool is_burnt = end.error.empty() && !end.failed.contains(target.Guid());
  const bool is_failsafe = kind == device::BurnKind::FAILSAFE;
  if (!is_burnt) ++_counts.failed;
  if (!is_failsafe) ++_counts.plain;
  for (const Fault fault : target.faults) {
    ++(is_burnt ? _counts.faults[fault].survived : _counts.faults[fault].failed);
  }

  const device::Memory before{target.expected, target.shape.sector_size};
  const device::Outcome outcome = device::Burn(*image, kind, target.identity).After(before);
  target.expected = _machine.ContentOf(target);
  _counts.bytes += target.expected.size();
  if (is_burnt) {
    if (!outcome.refusal.empty()) fail("was burnt, and must not be: " + outcome.refusal);
    const auto differ = std::ranges::mismatch(target.expected, outcome.memory.bytes);
    if (differ.in1 != target.expected.end()) {
      fail(Text("the burner says that it is burnt, and at 0x", std::hex,
                differ.in1 - target.expected.begin(), " it is not"));
    }
  } else if (!may_fail && outcome.refusal.empty()) {
    fail("the burn failed, and nothing was wrong");
  }

  const auto layout = device::LayoutOf(*image, target.shape.sector_size);
  if (is_burnt && is_failsafe) {
    // It has what the burn must leave: the new image, and no other one.
    if (!device::SlotThatBoots(*layout, target.expected)) fail("the burnt device does not boot");
    target.boots = true;
    target.images = {image};
    return;
  }
  device::Judge judge(*layout, before.bytes);
  for (const auto& old : target.images) {
    judge.AddKnownImage(*old, target.identity, before, device::Whole::OLD);
  }
  judge.AddKnownImage(*image, target.identity, before, device::Whole::NEW);
  judge.SetAll(target.expected);
  const device::Verdict verdict = judge.CurrentVerdict();
  // A burner takes a slot that is signed for valid. A burn without failsafe may end so, and another
  // one must follow.
  const auto is_sound = [&](std::uint32_t slot) {
    return !image->IsFlash() || !judge.IsSigned(slot) || judge.Boots(slot);
  };
  target.boots = verdict.IsSafe() && is_sound(0) && is_sound(1);
  if (is_failsafe) {
    ++_counts.judged;
    if (!target.boots) fail(Describe(verdict));
  }
  target.images.push_back(image);
}

/// Devices that nobody burns have what they had.
void Endurance::CheckOthers() {
  for (const auto& target : _machine.Targets()) {
    if (target->is_chosen) continue;
    _counts.bytes += target->expected.size();
    if (_machine.Holds(*target, target->expected)) continue;
    Fail(HexGuid(target->Guid()) + " has changed while others were burnt");
  }
}

// ---- Other clients

void Endurance::ReadOnce(Random& random) {
  _turns->Sleep(RandomTime(500ms, 10s, random));
  Target& target = AnyTarget(random);
  auto connection = Connect(random);
  for (std::uint32_t left = random.Between(1, 4); left > 0; --left) {
    const std::uint32_t size = 4 * random.Between(1, 64);
    const std::uint32_t offset = 4 * random.Below((target.shape.size - size) / 4 + 1);
    const std::uint64_t changes = target.changes;
    const auto is_quiet = [&] {
      return !target.is_chosen && target.changes == changes && target.lasting.empty() &&
             target.wire->lasting.empty();
    };
    const bool was_quiet = is_quiet() && !_machine.HasLeaseFile(target);
    const std::string answer =
        connection->Ask(Text(target.shape.IsFlash() ? "vsFlashReadMulti" : "vsI2cReadMulti", " 1 ",
                             HexGuid(target.Guid()), " 0x", std::hex, target.Chip(), std::dec, " ",
                             size, " 0x", std::hex, offset, " "));
    ++_counts.reads;
    if (!was_quiet || !is_quiet()) continue;
    ++_counts.compared_reads;
    const bool is_right =
        target.service == Service::NONE
            ? answer.find("No such device") != std::string::npos
            : std::ranges::equal(BytesOf(answer),
                                 device::View(target.expected).subspan(offset, size));
    if (!is_right) Fail("a read of " + HexGuid(target.Guid()) + " was answered: " + answer);
  }
  Close(std::move(connection));
}

/// Writes to a device that it must not write to.
void Endurance::IntrudeOnce(Random& random) {
  _turns->Sleep(RandomTime(1s, 20s, random));
  Target& target = AnyTarget(random);
  std::string expected;
  if (target.has_written) {
    expected = "Device is being burnt by " + target.holder + " since ";
  } else if (target.service != Service::FULL && !_machine.HasLeaseFile(target)) {
    expected = target.service == Service::NONE ? "No such device" : "Read-only";
  } else {
    return;
  }
  auto connection = Connect(random);
  const std::uint32_t offset = 4 * random.Below(target.shape.size / 4);
  const std::string answer = connection->Ask(
      hardware::WriteRequest(target.shape.IsFlash() ? "vsFlashWriteMulti" : "vsI2cWriteMulti",
                             {target.Guid()}, target.Chip(), offset, random.Bytes(4)));
  ++_counts.refusals;
  if (answer.find(expected) == std::string::npos) {
    Fail(Text(HexGuid(target.Guid()), " on ", target.wire->name, ": '", expected,
              "' was expected, the answer was: ", answer));
  }
  Close(std::move(connection));
}

/// Takes a device out of the configuration, makes it read-only, or has it back.
void Endurance::ReloadOnce(Random& random) {
  _turns->Sleep(RandomTime(5s, 60s, random));
  std::vector<Target*> not_served;
  for (const auto& target : _machine.Targets()) {
    if (target->service != Service::FULL) not_served.push_back(target.get());
  }
  Target& target = not_served.empty() || random.Chance(50)
                       ? AnyTarget(random)
                       : *not_served[random.Below(not_served.size())];
  // Who holds it goes on with what was; whoever is about to take it would be refused.
  if (!target.has_written && (target.is_chosen || _machine.HasLeaseFile(target))) return;
  if (target.service != Service::FULL) {
    target.service = Service::FULL;
  } else if (not_served.size() < 3) {
    target.service = random.OneOf({Service::NONE, Service::READ_ONLY});
  }
  ++target.changes;
  ++_counts.reloads;
  _machine.gateway->Reload(_machine.Served());
}

// ---- Faults

void Endurance::DisturbOnce(Random& random) {
  _turns->Sleep(RandomTime(1s, 15s, random));
  std::vector<Target*> burnt;
  for (const auto& target : _machine.Targets()) {
    const bool is_sound = target->lasting.empty() && target->wire->lasting.empty();
    if (target->has_written && is_sound) burnt.push_back(target.get());
  }
  if (burnt.empty()) return;
  Target& target = *burnt[random.Below(burnt.size())];
  if (target.eeprom != nullptr) {
    DisturbChip(target, random);
  } else if (target.flash != nullptr) {
    DisturbFlash(target, random);
  } else {
    DisturbFile(target, random);
  }
}

void Endurance::Disturb(Target& target, Fault fault) {
  ++_counts.faults[fault].injected;
  target.faults.insert(fault);
  target.lasting.insert(fault);
  ++target.changes;
}

void Endurance::DisturbWire(Wire& wire, Fault fault) {
  ++_counts.faults[fault].injected;
  wire.lasting.insert(fault);
  for (Target* target : wire.targets) {
    target->faults.insert(fault);
    ++target->changes;
  }
}

void Endurance::EndFault(Target& target, Fault fault) {
  target.lasting.erase(fault);
  ++target.changes;
}

void Endurance::EndFault(Wire& wire, Fault fault) {
  wire.lasting.erase(fault);
  for (Target* target : wire.targets) ++target->changes;
}

void Endurance::DisturbChip(Target& target, Random& random) {
  hardware::VirtualEeprom& chip = *target.eeprom;
  Wire& wire = *target.wire;
  const Fault fault = random.OneOf({Fault::DROPPED_PAGE, Fault::FLIPPED_BIT, Fault::PROTECTED_CHIP,
                                    Fault::ABSENT_CHIP, Fault::STUCK_BUS, Fault::LOST_ARBITRATION,
                                    Fault::FAILED_TRANSFER});
  switch (fault) {
    case Fault::DROPPED_PAGE:
      chip.DropPageWrite(1 + random.Below(40));
      return Disturb(target, fault);
    case Fault::FLIPPED_BIT:
      chip.FlipBitOfPageWrite(1 + random.Below(40), random.Below(8));
      return Disturb(target, fault);
    case Fault::PROTECTED_CHIP:
      Disturb(target, fault);
      chip.SetWriteProtected(true);
      _turns->Sleep(RandomTime(1ms, 500ms, random));
      chip.SetWriteProtected(false);
      return EndFault(target, fault);
    case Fault::ABSENT_CHIP:
      Disturb(target, fault);
      chip.SetAbsent(true);
      _turns->Sleep(RandomTime(1ms, 300ms, random));
      chip.SetAbsent(false);
      return EndFault(target, fault);
    case Fault::STUCK_BUS:
      DisturbWire(wire, fault);
      wire.bus->HoldWireFrom(_machine.loop.Now());
      _turns->Sleep(RandomTime(10ms, 3s, random));
      wire.bus->ReleaseWire();
      return EndFault(wire, fault);
    case Fault::LOST_ARBITRATION:
      DisturbWire(wire, fault);
      wire.bus->LoseArbitration(random.Between(1, 40));
      _turns->Sleep(1s);
      wire.bus->LoseArbitration(0);
      return EndFault(wire, fault);
    default:
      DisturbWire(wire, fault);
      _machine.system.Fail({.call = hardware::Call::TRANSFER_I2C,
                            .path = target.path,
                            .nth = random.Between(1, 30),
                            .times = random.Between(1, 3),
                            .error = random.OneOf({EIO, ENXIO, EREMOTEIO, ETIMEDOUT})});
      _turns->Sleep(1s);
      _machine.system.StopFailing(target.path);
      return EndFault(wire, fault);
  }
}

void Endurance::DisturbFlash(Target& target, Random& random) {
  hardware::VirtualFlash& flash = *target.flash;
  const Fault fault =
      random.OneOf({Fault::FAILED_PROGRAM, Fault::DROPPED_PROGRAM, Fault::FAILED_ERASE,
                    Fault::SPOILT_ERASE, Fault::PROTECTED_SECTORS, Fault::FAILED_CALL});
  Disturb(target, fault);
  switch (fault) {
    case Fault::FAILED_PROGRAM:
      return flash.FailProgram(1 + random.Below(30));
    case Fault::DROPPED_PROGRAM:
      return flash.DropProgram(1 + random.Below(30));
    case Fault::FAILED_ERASE:
      return flash.FailErase(1 + random.Below(3));
    case Fault::SPOILT_ERASE:
      return flash.SpoilErase(1 + random.Below(3));
    case Fault::PROTECTED_SECTORS: {
      const std::uint32_t first = random.Below(target.shape.size);
      flash.Protect(first, random.Chance(50) ? 1 : target.shape.size - first);
      _turns->Sleep(RandomTime(10ms, 3s, random));
      flash.Unprotect();
      return EndFault(target, fault);
    }
    default:
      using enum hardware::Call;
      _machine.system.Fail({.call = random.OneOf({READ, WRITE, ERASE_MTD}),
                            .path = target.path,
                            .nth = random.Between(1, 10)});
  }
}

void Endurance::DisturbFile(Target& target, Random& random) {
  using enum hardware::Call;
  Disturb(target, Fault::FAILED_CALL);
  _machine.system.Fail({.call = random.OneOf({READ, WRITE, FLUSH}),
                        .path = target.path,
                        .nth = random.Between(1, 10),
                        .error = random.OneOf({EIO, ENOSPC})});
}

// ---- Leaks

void Endurance::CheckPause() {
  Sample sample{.hours = Hours()};
  sample.descriptors = _machine.system.OpenDescriptors();
  sample.process_descriptors = ProcessDescriptors();
  // What tests look at, and this run does not. Their room on the heap goes, too.
  std::exchange(_machine.records, std::vector<serve::LeaseRecord>());
  std::exchange(_machine.log, std::vector<std::string>());
  _machine.system.ForgetProgramRuns();
  sample.heap = mallinfo2().uordblks + mallinfo2().hblkhd;
  std::set<const device::Image*> images;
  for (const auto& target : _machine.Targets()) {
    for (const auto& image : target->images) images.insert(image.get());
  }
  for (const device::Image* image : images) {
    // The allocator of a sanitizer tells nothing; what leaks is then found at the end.
    if (sample.heap == 0) break;
    for (const auto& section : image->sections) sample.heap -= section.data.capacity();
  }
  _samples.push_back(sample);
  CheckOthers();
  if (sample.descriptors != _first_descriptors) {
    Fail(Text("nobody is connected, and the server has ", sample.descriptors,
              " descriptors; at the start it had ", _first_descriptors));
  }
  if (sample.process_descriptors != _first_process_descriptors) {
    Fail(Text("this program has ", sample.process_descriptors, " descriptors; at the start it had ",
              _first_process_descriptors));
  }
  if (const std::size_t leases = _machine.LeaseFiles(); leases > 0) {
    Fail(Text("nobody is connected, and ", leases, " devices are held"));
  }
  if (const auto left = _machine.Unreleased(); left != 0) {
    Fail(Text("nobody is connected, and ", left, " devices are prepared and not released"));
  }
}

void Endurance::CheckEnd() const {
  const std::size_t half = _samples[(_samples.size() - 1) / 2].heap;
  const std::size_t last = _samples.back().heap;
  if (last > half + HEAP_GROWTH) {
    Fail(Text("the heap has grown from ", half, " to ", last, " bytes in the second half"));
  }
  double busy = 0;
  std::size_t wires = 0;
  for (std::size_t i = 0; i < _counts.busy.size(); ++i) {
    if (!_machine.Wires()[i]->TakesTime()) continue;
    busy += _counts.busy[i];
    ++wires;
  }
  if (busy < GOAL_BUSY * static_cast<double>(wires)) {
    Fail("the wires were busy for less than half of the time");
  }
  if (_options.hours < GOAL_HOURS) return;
  const auto reach = [this](const char* what, std::uint64_t count, std::uint64_t goal) {
    if (count < goal) Fail(Text("only ", count, " ", what, ", the goal is ", goal));
  };
  reach("page writes", _counts.page_writes, GOAL_PAGE_WRITES);
  reach("runs of the burner", _counts.runs, GOAL_BURNS);
  reach("connections", _counts.connections, GOAL_CONNECTIONS);
  for (int i = 0; i <= static_cast<int>(Fault::FAILED_CALL); ++i) {
    const auto found = _counts.faults.find(static_cast<Fault>(i));
    if (found == _counts.faults.end() || found->second.failed == 0) {
      Fail(Text("no burn has failed because ", NameOf(static_cast<Fault>(i))));
    }
  }
}

void Endurance::Fail(const std::string& what) const {
  throw Mistake(Text("after ", Hours(), " virtual hours: ", what));
}

}  // namespace endurance
