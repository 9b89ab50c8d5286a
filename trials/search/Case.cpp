#include "trials/search/Case.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "common/Text.h"
#include "device/Boot.h"
#include "device/Burn.h"
#include "device/ImageFile.h"
#include "device/Whole.h"
#include "sim/Filling.h"
#include "trials/search/MutatedImage.h"
#include "trials/soak/Scenario.h"

namespace search {

using common::Text;
using device::BurnKind;
using device::Image;
using device::Memory;
using device::SlotKind;
using soak::Random;

namespace {

/// Time limit of a program, which takes milliseconds on an idle machine.
constexpr std::chrono::seconds LIMIT{60};
constexpr std::uint32_t REHEARSED_PERCENT = 12;
constexpr std::uint32_t VERIFIED_PERCENT = 30;
constexpr int CUTS = 8;
/// Scenarios that a case may look at for its image.
constexpr std::uint64_t MOST_BASES = 100;

/// A device before a burn.
struct StartState {
  std::string name;
  const sim::Device* device = nullptr;
  Memory memory;
};

/// How a program ended, and what it printed.
struct Ended {
  int status = -1;
  std::string output;
  std::string errors;
};

class Case {
 public:
  Case(const common::ScratchFolder& folder, const Programs& programs, std::ostream* out,
       trials::MisbehavingServer& server, std::uint64_t seed)
      : _folder(folder),
        _programs(programs),
        _out(out),
        _server(server),
        _seed(seed),
        _random(seed + 0x5EA2C4) {}

  Statistics Run() {
    PickBase();
    const MutatedImage mutated = Mutate(_scenario, _random);
    _statistics.images = 1;
    for (const std::string& mistake : mutated.mistakes) {
      ++_statistics.mistakes[mistake];
      Tell("mistake: " + mistake);
    }
    if (mutated.mistakes.empty()) ++_statistics.mistakes["none"];
    _file = _folder.Write(Text("image-", _seed, ".img"), mutated.text);
    Tell(mutated.text);
    Check();
    if (_is_for_device && Load(mutated.text)) Burn();
    std::filesystem::remove(_file);
    std::filesystem::remove(_folder / Text("fabric-", _seed, ".toml"));
    return std::move(_statistics);
  }

 private:
  /// Picks a scenario whose image burns. Many of them are strange on purpose: of two cases out of
  /// three the image passes the check before mistakes are made in it.
  void PickBase() {
    const bool is_tidy = _random.Chance(67);
    for (std::uint64_t i = 0; i < MOST_BASES; ++i) {
      _scenario = soak::MakeScenario(_seed * MOST_BASES + i);
      if (!_scenario.refusal.empty() || _scenario.check_only || !_scenario.row.empty()) continue;
      if (!is_tidy) return;
      const std::string file = _folder.Write(Text("base-", _seed, ".img"), _scenario.text);
      const bool passes = CheckFile(file).status == 0;
      std::filesystem::remove(file);
      if (passes) return;
    }
    throw std::runtime_error("no scenario fits");
  }

  // ---- The check

  /// A fabric file with one device like those of the scenario. `memory` is what it holds.
  std::string WriteFabric(const sim::Device& device, const Memory* memory) {
    std::string text =
        Text("[server]\ntype = \"", _scenario.fabric.facts.type, "\"\n[[device]]\nnode_guid = \"",
             common::HexGuid(device.node_guid), "\"\nport_guids = [");
    for (const device::Guid port : device.port_guids) text += "\"" + common::HexGuid(port) + "\", ";
    text += Text("]\nsystem_guid = \"", common::HexGuid(device.sys_guid), "\"\nbsn = \"",
                 Hex(device.bsn), "\"\nvsd = \"", Hex(device.vsd), "\"\n");
    const bool is_flash = device.kind == device::MemoryKind::FLASH;
    if (!is_flash) {
      text += "chip = [";
      for (const auto& [address, chip] : device.chips) {
        text += Text("{ address = ", std::uint32_t{address}, ", size = ", chip.Size(), " }, ");
      }
      text += "]\n";
    } else {
      const sim::Chip& chip = device.chips.begin()->second;
      text +=
          Text("[device.flash]\nsize = ", chip.Size(), "\nsector_size = ", chip.SectorSize(), "\n");
    }
    if (memory != nullptr) {
      for (const auto& [address, chip] : device.chips) {
        const std::string raw = _folder.Write(
            Text("memory-", _seed, "-", std::uint32_t{address}),
            std::string_view(reinterpret_cast<const char*>(chip.Bytes().data()), chip.Size()));
        text += Text("[[device.contents]]\nraw = \"", raw, "\"\n",
                     is_flash ? "" : Text("chip = ", std::uint32_t{address}, "\n"));
      }
    }
    return _folder.Write(Text("fabric-", _seed, ".toml"), text);
  }

  static std::string Hex(device::View bytes) {
    std::string text = "0x";
    for (const std::uint8_t byte : bytes) {
      text += "0123456789abcdef"[byte >> 4];
      text += "0123456789abcdef"[byte & 15];
    }
    return text;
  }

  /// Checks for the device and the chunks of the scenario.
  Ended CheckFile(const std::string& file) {
    const std::string fabric = WriteFabric(FirstTarget(), nullptr);
    return RunProgram({_programs.fwimg, "check", "--json", "-m",
                       std::to_string(_scenario.log2_chunk), "--fabric", fabric, file});
  }

  void Check() {
    const Ended check = CheckFile(_file);
    Tell(check.output);
    if (check.errors.find("nothing to check it against") != std::string::npos) {
      // The mistake made it an image for other devices.
      _is_for_device = false;
      return;
    }
    if (check.status != 0 && check.status != 1) {
      FalseClaim(Text("the check ends with ", check.status, ": ", check.errors));
      return;
    }
    std::set<std::string> kinds;
    const nlohmann::json result = nlohmann::json::parse(check.output);
    for (const auto& problem : result.at("files").at(0).at("problems")) {
      kinds.insert(problem.at("kind"));
      if (problem.at("severity") == "error") _errors.insert(problem.at("kind"));
    }
    for (const std::string& kind : kinds) ++_statistics.kinds[kind];
    _has_problems = !kinds.empty();
    if ((check.status == 0) != _errors.empty()) FalseClaim("the check's status and list differ");
    if (_errors.empty()) ++_statistics.passed;
  }

  // ---- The burns

  bool Load(const std::string& text) {
    try {
      _image = device::ParseImage(text, _file);
    } catch (const device::ImageError&) {
      // The burner refuses it, too: that both loaders take the same images is another test.
      if (_errors.empty()) FalseClaim("the check finds no error in an image that does not load");
      return false;
    }
    return _image.type != nullptr || !_errors.empty();
  }

  const sim::Device& FirstTarget() const {
    const sim::Device* device = nullptr;
    for (const device::Guid name : _scenario.targets) {
      if (device == nullptr) device = _scenario.fabric.Find(name);
    }
    if (device == nullptr) throw std::logic_error("a scenario has a device");
    return *device;
  }

  bool HasSlots() const { return _image.Slots() != SlotKind::NONE; }
  bool FitsDevice() const {
    return _image.type != nullptr && _image.IsFlash() == _scenario.image.IsFlash() &&
           _image.Slots() == _scenario.image.Slots() && _image.map == _scenario.image.map;
  }
  /// Only where the records stand where those of the old image stood, it can boot the old one.
  bool HasPlacesOfBase() const {
    for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
      const device::Slot& now = _image.slots[slot];
      const device::Slot& base = _scenario.image.slots[slot];
      if (now.pointer_sector != base.pointer_sector || now.signature != base.signature)
        return false;
      if (_image.Slots() == SlotKind::BOOT_RECORDS && now.image != base.image) return false;
    }
    return true;
  }

  void Burn() {
    // A device of another kind is not one that the image is for.
    if (!FitsDevice()) return;
    bool all_burn = true;
    std::uint64_t before = _statistics.burns;
    std::vector<BurnKind> kinds = {BurnKind::PLAIN};
    if (HasSlots()) kinds.push_back(BurnKind::FAILSAFE);
    for (const BurnKind kind : kinds) {
      for (const std::string& state : StatesFor(kind)) {
        if (!BurnFrom(state, kind)) all_burn = false;
      }
    }
    if (all_burn && _statistics.burns > before && _errors.size() == 1 &&
        (!HasSlots() || HasPlacesOfBase())) {
      ++_statistics.burnt_with_error[*_errors.begin()];
      _statistics.case_of.emplace(*_errors.begin(), Text(_seed));
    }
  }

  std::vector<std::string> StatesFor(BurnKind kind) const {
    if (kind == BurnKind::PLAIN) return {"as the scenario has it"};
    if (!HasPlacesOfBase()) return {};
    return {"as the scenario has it", "the first slot valid", "the second slot valid",
            "both slots valid"};
  }

  /// Sets up a fabric with the first target in that state. False where it does not apply.
  bool SetUp(const std::string& state, BurnKind kind, sim::Fabric& fabric) const {
    fabric.facts = _scenario.fabric.facts;
    const sim::Device& target = FirstTarget();
    fabric.CopyDevice(target);
    if (state == "as the scenario has it") {
      return kind == BurnKind::PLAIN || _scenario.judges.contains(target.node_guid);
    }
    const Image& base = _scenario.image;
    const bool is_both = state == "both slots valid";
    const bool is_second = state == "the second slot valid";
    try {
      if (!is_second) sim::Fill(fabric, target.node_guid, base, {.slot = 0});
      if (is_second || is_both) {
        sim::Fill(fabric, target.node_guid, base, {.slot = 1, .is_second = is_both});
      }
      if (!is_both) {
        sim::Fill(fabric, target.node_guid, base, {.slot = is_second ? 0u : 1u, .is_valid = false});
      }
    } catch (const std::exception&) {
      return false;
    }
    const sim::Device& device = *fabric.Find(target.node_guid);
    const Memory memory = sim::MemoryOf(device, base);
    const auto layout = device::LayoutOf(base, memory.sector_size);
    return layout && device::SlotThatBoots(*layout, memory.bytes).has_value();
  }

  bool BurnFrom(const std::string& state, BurnKind kind) {
    sim::Fabric fabric;
    if (!SetUp(state, kind, fabric)) return true;
    const device::Guid guid = fabric.Devices().begin()->first;
    const bool is_rehearsed = kind == BurnKind::FAILSAFE && _random.Chance(REHEARSED_PERCENT);
    if (is_rehearsed) Rehearse(fabric, guid);
    // The second burn starts from what the first one has left.
    for (const char* which : {"the burn", "the next burn"}) {
      const std::string wrong = BurnOnce(fabric, guid, kind);
      Tell(Text(which, ", ", state, kind == BurnKind::PLAIN ? ", -n: " : ": ",
                wrong.empty() ? "good" : wrong));
      if (!wrong.empty()) {
        if (_errors.empty()) {
          FalseClaim(Text("check passes, ", state, kind == BurnKind::PLAIN ? ", -n, " : ", ", which,
                          ": ", wrong));
        }
        return false;
      }
      if (_random.Chance(VERIFIED_PERCENT)) Verify(fabric, guid, kind);
      if (kind == BurnKind::PLAIN) break;
    }
    return true;
  }

  std::vector<std::string> BurnWords(device::Guid guid, BurnKind kind) const {
    std::vector<std::string> words = {
        _programs.fwpush,    "-f", _file, "-m", std::to_string(_scenario.log2_chunk), "-g",
        Text(std::hex, guid)};
    if (kind == BurnKind::PLAIN && HasSlots()) words.emplace_back("-n");
    words.insert(words.end(), {"-s", _server.Name(_scenario.server_type)});
    return words;
  }

  /// Returns what is wrong with the device afterwards; empty where nothing is.
  std::string BurnOnce(sim::Fabric& fabric, device::Guid guid, BurnKind kind) {
    ++_statistics.burns;
    const sim::Device& device = *fabric.Find(guid);
    const Memory before = sim::MemoryOf(device, _image);
    const trials::RunOutcome run = _server.Run(BurnWords(guid, kind), fabric, nullptr, LIMIT);
    if (run.status != 0) {
      const std::size_t line = run.output.find("-E-");
      return Text("the burn ends with ", run.status, ", signal ", run.signal, ": ",
                  line == std::string::npos ? run.errors : run.output.substr(line));
    }
    const device::Identity identity = sim::IdentityOf(device);
    const Memory after = sim::MemoryOf(device, _image);
    try {
      const device::Burn burn(_image, kind, identity);
      const device::Outcome outcome = burn.After(before);
      if (!outcome.refusal.empty()) return "the burn should end: " + outcome.refusal;
      if (outcome.memory.bytes != after.bytes) return "a byte is not as the image has it";
      if (kind == BurnKind::PLAIN) {
        // Which image boots is the author's affair, who is warned.
        if (!HasSlots() || _has_problems) return "";
        const auto layout = device::LayoutOf(_image, after.sector_size);
        if (!layout || !device::SlotThatBoots(*layout, after.bytes)) return "no slot boots";
        return "";
      }
      device::Judge judge(device::LayoutOf(_image, after.sector_size).value(), after.bytes);
      judge.AddPresentInvariantSector();
      if (!judge.AddKnownImage(_image, identity, before, device::Whole::NEW,
                               device::Origin::FAILSAFE_BURN)) {
        return "the image has no place for its slots";
      }
      const device::Verdict verdict = judge.CurrentVerdict();
      if (!verdict.IsBurnt(_image.Slots())) return Describe(verdict);
    } catch (const std::exception& error) {
      return Text("the burn should end: ", error.what());
    }
    return "";
  }

  // ---- The rehearsal

  void Rehearse(const sim::Fabric& start, device::Guid guid) {
    const sim::Device& device = *start.Find(guid);
    const Memory memory = sim::MemoryOf(device, _image);
    const std::string fabric_file = WriteFabric(device, &memory);
    ++_statistics.rehearsals;
    const Ended rehearsal = RunProgram({_programs.rehearse, fabric_file, "-f", _file, "-m",
                                        std::to_string(_scenario.log2_chunk), "--recover", "2"});
    Tell(rehearsal.output + rehearsal.errors);
    if (rehearsal.status != 0) return;
    ++_statistics.rehearsed_safe;

    const device::Identity identity = sim::IdentityOf(device);
    const auto layout = device::LayoutOf(_image, memory.sector_size);
    if (!layout) return FalseClaim("rehearsed as safe without slots");
    for (int i = 0; i < CUTS; ++i) {
      ++_statistics.cuts;
      sim::Fabric fabric;
      fabric.facts = start.facts;
      fabric.CopyDevice(device);
      fabric.faults.Add({.kind = sim::Fault::CUT,
                         .command = _random.Chance(20) ? "Erase" : "Write",
                         .device = guid,
                         .nth = 1 + _random.Below(_random.OneOf<std::uint32_t>({4, 20, 100})),
                         .text = {},
                         .seed = static_cast<std::uint32_t>(_random.Seed())});
      _server.Run(BurnWords(guid, BurnKind::FAILSAFE), fabric, nullptr, LIMIT);
      device::Judge judge(*layout, memory.bytes);
      judge.AddPresentImages();
      judge.AddPresentInvariantSector();
      judge.AddKnownImage(_image, identity, memory, device::Whole::NEW,
                          device::Origin::FAILSAFE_BURN);
      judge.SetAll(sim::MemoryOf(*fabric.Find(guid), _image).bytes);
      const device::Verdict verdict = judge.CurrentVerdict();
      if (!verdict.IsSafe()) {
        FalseClaim("rehearsed as safe, and a power loss leaves: " + Describe(verdict));
        return;
      }
    }
  }

  // ---- The verification

  Ended VerifyOnce(sim::Fabric& fabric, device::Guid guid, BurnKind kind) {
    std::vector<std::string> words = {_programs.verify,
                                      "-f",
                                      _file,
                                      "-g",
                                      Text(std::hex, guid),
                                      "-s",
                                      _server.Name(_scenario.server_type)};
    if (kind == BurnKind::PLAIN) words.insert(words.end(), {"--slot", "none"});
    const trials::RunOutcome run = _server.Run(words, fabric, nullptr, LIMIT);
    return {run.status, run.output, run.errors};
  }

  /// The addresses that a burn of that kind has filled.
  std::vector<device::Range> Filled(const Memory& memory, BurnKind kind) const {
    std::vector<device::Range> ranges;
    const auto add = [&](std::uint32_t addr, const device::Section& section) {
      if (!section.data.empty()) {
        ranges.push_back({addr, static_cast<std::uint32_t>(section.data.size())});
      }
    };
    if (kind == BurnKind::PLAIN) {
      for (const device::Section& section : _image.sections) add(section.addr, section);
      return ranges;
    }
    const auto layout = device::LayoutOf(_image, memory.sector_size).value();
    for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
      if (!device::SlotBoots(layout, slot, memory.bytes)) continue;
      for (const device::Section* section : _image.SlotSections()) {
        add(_image.AddressInSlot(*section, slot), *section);
      }
      if (!layout.HasPointerSectors()) continue;
      add(layout.records[slot], *_image.SectionAt(layout.records[slot]));
    }
    return ranges;
  }

  void Verify(sim::Fabric& fabric, device::Guid guid, BurnKind kind) {
    ++_statistics.verified;
    if (const Ended verification = VerifyOnce(fabric, guid, kind); verification.status != 0) {
      Tell(verification.output + verification.errors);
      if (_errors.empty()) {
        FalseClaim("burnt right, and verified as: " + verification.output + verification.errors);
      }
      return;
    }
    sim::Device& device = *fabric.Find(guid);
    const Memory memory = sim::MemoryOf(device, _image);
    const std::vector<device::Range> ranges = Filled(memory, kind);
    if (ranges.empty()) return FalseClaim("nothing to compare, and verified as identical");
    const device::Range range = ranges[_random.Below(ranges.size())];
    const std::uint32_t addr = range.addr + _random.Below(range.size);
    Memory changed = memory;
    changed.bytes.at(addr) ^= static_cast<std::uint8_t>(1u << _random.Below(8));
    sim::LoadMemory(device, _image, changed);
    ++_statistics.flipped;
    if (VerifyOnce(fabric, guid, kind).status == 0) {
      FalseClaim(Text("verified as identical, and the byte at 0x", std::hex, addr, " differs"));
    }
    sim::LoadMemory(device, _image, memory);
  }

  // ---- Helpers

  /// Runs a program that needs no server.
  Ended RunProgram(const std::vector<std::string>& words) {
    sim::Fabric none;
    const trials::RunOutcome run = _server.Run(words, none, nullptr, LIMIT);
    return {run.status, run.output, run.errors};
  }

  void FalseClaim(const std::string& text) {
    _statistics.false_claims.push_back(Text("--case ", _seed, ": ", text));
  }
  void Tell(const std::string& text) {
    if (_out != nullptr) *_out << text << "\n";
  }

  const common::ScratchFolder& _folder;
  const Programs& _programs;
  std::ostream* _out;
  trials::MisbehavingServer& _server;
  std::uint64_t _seed;
  Random _random;
  soak::Scenario _scenario;
  std::string _file;
  Image _image;
  std::set<std::string> _errors;
  bool _has_problems = false;
  bool _is_for_device = true;
  Statistics _statistics;
};

template <typename Key>
void AddCounts(std::map<Key, std::uint64_t>& sum, const std::map<Key, std::uint64_t>& other) {
  for (const auto& [key, count] : other) sum[key] += count;
}

}  // namespace

Statistics& Statistics::operator+=(const Statistics& other) {
  images += other.images;
  passed += other.passed;
  burns += other.burns;
  rehearsals += other.rehearsals;
  rehearsed_safe += other.rehearsed_safe;
  cuts += other.cuts;
  verified += other.verified;
  flipped += other.flipped;
  AddCounts(kinds, other.kinds);
  AddCounts(burnt_with_error, other.burnt_with_error);
  AddCounts(mistakes, other.mistakes);
  case_of.insert(other.case_of.begin(), other.case_of.end());
  false_claims.insert(false_claims.end(), other.false_claims.begin(), other.false_claims.end());
  return *this;
}

Statistics CaseRunner::Run(std::uint64_t seed) {
  try {
    return Case(_folder, _programs, _out, _server, seed).Run();
  } catch (const std::exception& error) {
    Statistics statistics;
    statistics.images = 1;
    statistics.false_claims.push_back(Text("--case ", seed, ": ", error.what()));
    return statistics;
  }
}

}  // namespace search
