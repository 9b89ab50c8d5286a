#include "trials/search/Case.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "common/ExitStatus.h"
#include "common/Files.h"
#include "common/Text.h"
#include "device/Boot.h"
#include "device/Burn.h"
#include "device/ImageFile.h"
#include "device/Whole.h"
#include "sim/Filling.h"
#include "trials/search/MutatedImage.h"
#include "trials/search/OldImages.h"
#include "trials/search/StartState.h"
#include "trials/soak/ImageText.h"
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
/// Of a second image that the burn has to move.
constexpr std::uint32_t MOVED_PERCENT = 25;
constexpr std::uint32_t VERIFIED_PERCENT = 30;
constexpr std::uint32_t COMPARED_PERCENT = 40;
constexpr std::string_view FIRST_BURN = "the burn";
constexpr std::string_view NEXT_BURN = "the next burn";
constexpr int CUTS = 8;
/// Torn words of boot records: with up to so many bits that change, all mixes are tried.
constexpr int MOST_BITS = 12;
/// Bytes of a device that is made for an image.
constexpr std::uint64_t MOST_MAPPED = 0x40000;
/// Scenarios that a case may look at for its image.
constexpr std::uint64_t MOST_BASES = 100;

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
    if (_random.Chance(70)) FitDevice(mutated.text);
    if (_random.Chance(4)) AddPorts();
    Check();
    if (_is_for_device && Load(mutated.text)) {
      Burn();
      if (!mutated.mistakes.empty() && FitsDevice() && _random.Chance(COMPARED_PERCENT)) Compare();
    }
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
      // Two slots have more that can go wrong.
      if (_scenario.image.Slots() == SlotKind::NONE && _random.Chance(50)) continue;
      if (!is_tidy) return;
      const std::string file = _folder.Write(Text("base-", _seed, ".img"), _scenario.text);
      const bool passes = CheckFile(file).status == 0;
      std::filesystem::remove(file);
      if (passes) return;
    }
    throw std::runtime_error("no scenario fits");
  }

  /// Gives the device the EEPROMs of the image's map, where a mistake was made in it: so the image
  /// can be burnt.
  void FitDevice(const std::string& text) {
    Image image;
    try {
      image = device::ParseImage(text, _file);
    } catch (const device::ImageError&) {
      return;
    }
    const auto size = image.MappedSize();
    if (image.type == nullptr || image.IsFlash() || image.Slots() != _scenario.image.Slots() ||
        image.map == _scenario.image.map || !size || *size > MOST_MAPPED)
      return;
    sim::Device& device = *_scenario.fabric.Find(FirstTarget(_scenario).node_guid);
    std::map<std::uint8_t, std::uint32_t> sizes;
    for (const device::MappedChip& chip : image.map) {
      if (chip.size < device::WORD_SIZE || !sizes.emplace(chip.chip, chip.size).second) return;
    }
    device.chips.clear();
    for (const auto& [chip, bytes] : sizes) {
      device.chips.try_emplace(chip, sim::Chip(std::make_unique<sim::Cells>(bytes), 0));
    }
    _scenario.image.map = image.map;
    _scenario.judges.erase(device.node_guid);  // it is blank
  }

  /// A device with more ports than a GUIDS field has room for.
  void AddPorts() {
    sim::Device& device = *_scenario.fabric.Find(FirstTarget(_scenario).node_guid);
    while (device.port_guids.size() < 3) {
      device.port_guids.push_back(device.node_guid + 0xA0000 + device.port_guids.size());
    }
  }

  // ---- The check

  std::string WriteFabric(const sim::Device& device, const std::string& contents) {
    return _folder.Write(Text("fabric-", _seed, ".toml"),
                         FabricText(_scenario.fabric.facts.type, device, contents));
  }

  /// Checks for the device and the chunks of the scenario.
  Ended CheckFile(const std::string& file) {
    const std::string fabric = WriteFabric(FirstTarget(_scenario), "");
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
    _plain_burn_may_not_boot = !_errors.empty() || kinds.contains("none-shipped-signed");
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

  bool HasSlots() const { return _image.Slots() != SlotKind::NONE; }
  bool FitsDevice() const {
    return _image.type != nullptr && _image.IsFlash() == _scenario.image.IsFlash() &&
           _image.Slots() == _scenario.image.Slots() && _image.map == _scenario.image.map;
  }
  /// Only where the records stand where those of the old image stood, it can boot the old one. An
  /// address that is missing ends the burn on any device.
  bool HasPlacesOfBase() const {
    using Place = std::optional<std::uint32_t>;
    const auto moved = [](const Place& now, const Place& base) {
      return now && now != device::UNSET_ADDR && now != base;
    };
    for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
      const device::Slot& now = _image.slots[slot];
      const device::Slot& base = _scenario.image.slots[slot];
      if (moved(now.pointer_sector, base.pointer_sector) || moved(now.signature, base.signature))
        return false;
      if (_image.Slots() == SlotKind::BOOT_RECORDS && moved(now.image, base.image)) return false;
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
      for (const StartState& state : StatesFor(kind)) {
        if (!BurnFrom(state, kind)) all_burn = false;
      }
    }
    if (all_burn && _statistics.burns > before && _errors.size() == 1 &&
        (!HasSlots() || HasPlacesOfBase())) {
      if (_errors.contains("section-in-slot") && !_loses_section) {
        FalseClaim("the check says that burns destroy a section; all sections are there");
      }
      ++_statistics.burnt_with_error[*_errors.begin()];
      _statistics.case_of.emplace(*_errors.begin(), Text(_seed));
    }
  }

  const std::vector<StartState>& StatesFor(BurnKind kind) const {
    static const std::vector<StartState> none;
    return kind == BurnKind::PLAIN || HasPlacesOfBase() ? StartStates(kind) : none;
  }

  bool BurnFrom(const StartState& state, BurnKind kind) {
    if (kind == BurnKind::FAILSAFE) RehearseSome(state);
    sim::Fabric fabric;
    if (!SetUp(_scenario, state, kind, _scenario.image, fabric)) return true;
    const device::Guid guid = fabric.Devices().begin()->first;
    // The second burn starts from what the first one has left.
    for (const std::string_view which : {FIRST_BURN, NEXT_BURN}) {
      const std::string wrong = BurnOnce(fabric, guid, kind);
      Tell(Text(which, ", ", state.name, kind == BurnKind::PLAIN ? ", -n: " : ": ",
                wrong.empty() ? "good" : wrong));
      if (!wrong.empty()) {
        if (_errors.empty()) {
          FalseClaim(Text("check passes, ", state.name, kind == BurnKind::PLAIN ? ", -n, " : ", ",
                          which, ": ", wrong));
        }
        return false;
      }
      if (_random.Chance(VERIFIED_PERCENT)) Verify(fabric, guid, kind);
      // After two burns both slots have been burnt.
      if (which != FIRST_BURN && !HoldsAllSections(*fabric.Find(guid))) _loses_section = true;
      if (kind == BurnKind::PLAIN) break;
    }
    return true;
  }

  std::vector<std::string> BurnWords(device::Guid guid, BurnKind kind,
                                     const std::string& file) const {
    std::vector<std::string> words = {
        _programs.fwpush,    "-f", file, "-m", std::to_string(_scenario.log2_chunk), "-g",
        Text(std::hex, guid)};
    if (kind == BurnKind::PLAIN && HasSlots()) words.emplace_back("-n");
    words.insert(words.end(), {"-s", _server.Name(_scenario.server_type)});
    return words;
  }

  /// Whether a burn fills the byte itself.
  bool IsFilled(std::uint64_t addr) const {
    const auto has = [&](std::uint64_t from, std::uint64_t end) {
      return from <= addr && addr < end;
    };
    const auto is_field = [&](const device::Field& field) { return has(field.addr, field.End()); };
    const auto is_crc = [&](const device::CrcField& crc) {
      return has(crc.addr, crc.addr + std::uint64_t{device::WORD_SIZE});
    };
    return std::ranges::any_of(_image.fields, is_field) || std::ranges::any_of(_image.crcs, is_crc);
  }

  /// Whether the memory has the section's bytes from `to` on, but for those that burns fill.
  bool Holds(const Memory& memory, const device::Section& section, std::uint64_t to) const {
    for (std::size_t i = 0; i < section.data.size(); ++i) {
      const std::uint64_t addr = to + i;
      if (addr >= memory.bytes.size()) return false;
      const bool is_same = memory.bytes[static_cast<std::size_t>(addr)] == section.data[i];
      if (!is_same && !IsFilled(addr) && !IsFilled(section.addr + std::uint64_t{i})) return false;
    }
    return true;
  }

  bool HoldsAllSections(const sim::Device& device) const {
    const Memory memory = sim::MemoryOf(device, _image);
    return std::ranges::all_of(_image.sections, [&](const device::Section& section) {
      return Holds(memory, section, section.addr);
    });
  }

  /// Whether the slot has every section of the file that lies between the slots, whichever of them
  /// the burner takes for the image.
  bool HoldsImage(const Memory& memory, std::uint32_t slot) const {
    return std::ranges::all_of(_image.sections, [&](const device::Section& section) {
      const bool is_record = std::ranges::any_of(_image.slots, [&](const device::Slot& each) {
        return each.pointer_sector == section.addr;
      });
      if (is_record || section.addr < *_image.slots[0].image ||
          section.addr >= *_image.slots[1].image)
        return true;
      return Holds(memory, section, _image.AddressInSlot(section, slot));
    });
  }

  /// Returns what is wrong with the device afterwards; empty where nothing is.
  std::string BurnOnce(sim::Fabric& fabric, device::Guid guid, BurnKind kind) {
    ++_statistics.burns;
    const sim::Device& device = *fabric.Find(guid);
    const Memory before = sim::MemoryOf(device, _image);
    const trials::RunOutcome run = RunAt(BurnWords(guid, kind, _file), fabric);
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
        if (!HasSlots() || _plain_burn_may_not_boot) return "";
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
      for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
        if (verdict.slots[slot].boots && !HoldsImage(after, slot)) {
          return Text("slot ", slot, " lacks bytes that the image has between its slots");
        }
      }
    } catch (const std::exception& error) {
      return Text("the burn should end: ", error.what());
    }
    return "";
  }

  // ---- The rehearsal

  /// Rehearses some of the burns, many of them with a device that had another image before.
  void RehearseSome(const StartState& state) {
    if (state.begins_blank && _random.Chance(MOVED_PERCENT)) {
      const auto old =
          ImageToMove(_scenario.image, sim::SectorSizeOf(FirstTarget(_scenario)), _random);
      if (old) return Rehearse(state, *old);
    }
    if (!_random.Chance(REHEARSED_PERCENT)) return;
    Rehearse(state,
             _random.Chance(50) ? _scenario.image : WithOtherSizes(_scenario.image, _random));
  }

  void Rehearse(const StartState& state, const Image& old) {
    sim::Fabric start;
    if (!SetUp(_scenario, state, BurnKind::FAILSAFE, old, start)) return;
    const device::Guid guid = start.Devices().begin()->first;
    const sim::Device& device = *start.Find(guid);
    std::string contents;
    if (state.IsOfImageFile()) {
      soak::RandomImage image;
      image.image = old;
      image.type = old.type->keyword;
      const std::string file = _folder.Write(Text("old-", _seed, ".img"), TextOf(image, _random));
      contents = ImageContents(file, state);
    } else {
      contents = RawContents(device, _folder, Text("memory-", _seed));
    }
    ++_statistics.rehearsals;
    const std::string json = _folder / Text("rehearsal-", _seed, ".json");
    const Ended rehearsal =
        RunProgram({_programs.rehearse, WriteFabric(device, contents), "-f", _file, "-m",
                    std::to_string(_scenario.log2_chunk), "--recover", "2", "--json", json});
    Tell(Text("rehearsed: ", state.name, "\n", rehearsal.output, rehearsal.errors));
    switch (rehearsal.status) {
      case 0:
        ++_statistics.rehearsed_safe;
        break;
      case common::DIFFERS:
        return;
      case common::CANNOT:
        ++_statistics.not_rehearsed;
        return;
      default:
        return FalseClaim(
            Text("the rehearsal ends with ", rehearsal.status, ": ", rehearsal.errors));
    }

    // "Safe" is said of this burn and of the next one.
    const auto result = nlohmann::json::parse(common::ReadFile(json));
    if (result.at("points") == 0 || result.at("next_burn").at("points") == 0) {
      return FalseClaim("rehearsed as safe without a look at both burns");
    }

    // What the device holds before: known where it is filled from an image, else by its records.
    const Memory memory = sim::MemoryOf(device, _image);
    const auto layout = device::LayoutOf(_image, memory.sector_size);
    if (!layout) return FalseClaim("rehearsed as safe without slots");
    const device::Identity identity = sim::IdentityOf(device);
    device::Judge judge(*layout, memory.bytes);
    judge.AddPresentInvariantSector();
    if (state.parts.empty()) {
      judge.AddPresentImages();
    } else {
      judge.AddKnownImage(old, identity, memory, device::Whole::OLD);
    }
    judge.AddKnownImage(_image, identity, memory, device::Whole::NEW,
                        device::Origin::FAILSAFE_BURN);
    for (const std::string_view which : {FIRST_BURN, NEXT_BURN}) {
      if (!CutsAreSafe(start, guid, judge) || !TornRecordsAreSafe(start, guid, judge)) {
        return FalseClaim(Text("rehearsed as safe, ", state.name, ", and a power loss in ", which,
                               " leaves: ", Describe(judge.CurrentVerdict())));
      }
      const trials::RunOutcome run = RunAt(BurnWords(guid, BurnKind::FAILSAFE, _file), start);
      if (run.status != 0) return;
      // What lies between the sections may have changed.
      judge.AddKnownImage(_image, identity, sim::MemoryOf(device, _image), device::Whole::NEW,
                          device::Origin::FAILSAFE_BURN);
    }
  }

  /// Burns, each time with a power loss somewhere. The judge is left with the first memory that is
  /// not safe.
  bool CutsAreSafe(const sim::Fabric& start, device::Guid guid, device::Judge& judge) {
    for (int i = 0; i < CUTS; ++i) {
      sim::Fabric fabric;
      fabric.facts = start.facts;
      fabric.CopyDevice(*start.Find(guid));
      fabric.faults.Add({.kind = sim::Fault::CUT,
                         .command = _image.IsFlash() && _random.Chance(20) ? "Erase" : "Write",
                         .device = guid,
                         .nth = 1 + _random.Below(_random.OneOf<std::uint32_t>({4, 20, 100})),
                         .text = {},
                         .seed = static_cast<std::uint32_t>(_random.Seed())});
      const trials::RunOutcome run = RunAt(BurnWords(guid, BurnKind::FAILSAFE, _file), fabric);
      if (run.status == 0) continue;  // the burn was over before
      ++_statistics.cuts;
      judge.SetAll(sim::MemoryOf(*fabric.Find(guid), _image).bytes);
      if (!judge.CurrentVerdict().IsSafe()) return false;
    }
    return true;
  }

  /// Burns once, and tries what each word of a boot record can hold if the power goes while it is
  /// written: a sum of bytes may be right by chance.
  bool TornRecordsAreSafe(const sim::Fabric& start, device::Guid guid, device::Judge& judge) {
    if (_image.Slots() != SlotKind::BOOT_RECORDS) return true;
    const auto layout = device::LayoutOf(_image, 0).value();
    sim::Fabric fabric;
    fabric.facts = start.facts;
    fabric.CopyDevice(*start.Find(guid));
    bool is_safe = true;
    fabric.observer = [&](const sim::Operation& operation) {
      const device::MemoryChange change = sim::ChangeOf(operation, _image);
      device::Bytes memory = sim::MemoryOf(*fabric.Find(guid), _image).bytes;
      for (std::size_t word = 0; word < operation.bytes.size() && is_safe;
           word += device::WORD_SIZE) {
        const device::View wanted = operation.bytes.subspan(
            word, std::min<std::size_t>(device::WORD_SIZE, operation.bytes.size() - word));
        const std::size_t addr = change.addr + word;
        const bool is_of_record = std::ranges::any_of(layout.records, [&](std::uint32_t record) {
          return addr < record + device::BOOT_RECORD_SIZE && record < addr + wanted.size();
        });
        if (is_of_record && !MixesAreSafe(memory, addr, wanted, judge)) is_safe = false;
        std::ranges::copy(wanted, memory.begin() + static_cast<std::ptrdiff_t>(addr));
      }
    };
    RunAt(BurnWords(guid, BurnKind::FAILSAFE, _file), fabric);
    return is_safe;
  }

  /// Mixes of the bits of one word of an EEPROM: all of them, or many at random.
  bool MixesAreSafe(const device::Bytes& memory, std::size_t addr, device::View wanted,
                    device::Judge& judge) {
    std::vector<std::pair<std::size_t, std::uint8_t>> bits;  // that change: place and bit
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      for (int bit = 0; bit < 8; ++bit) {
        const auto mask = static_cast<std::uint8_t>(1u << bit);
        if (((memory[addr + i] ^ wanted[i]) & mask) != 0) bits.emplace_back(addr + i, mask);
      }
    }
    const bool tries_all = bits.size() <= MOST_BITS;
    const std::uint64_t mixes = std::uint64_t{1} << std::min<std::size_t>(bits.size(), MOST_BITS);
    judge.SetAll(memory);
    for (std::uint64_t mix = 0; mix < mixes; ++mix) {
      ++_statistics.mixes;
      const std::uint64_t done = tries_all ? mix : _random.Seed();
      for (std::size_t i = 0; i < wanted.size(); ++i) {
        std::uint8_t byte = memory[addr + i];
        for (std::size_t bit = 0; bit < bits.size(); ++bit) {
          if (bits[bit].first == addr + i && (done >> bit & 1) != 0) byte ^= bits[bit].second;
        }
        judge.Set(static_cast<std::uint32_t>(addr + i), byte);
      }
      if (!judge.CurrentVerdict().IsSafe()) return false;
    }
    return true;
  }

  // ---- The comparison

  /// Where diff says that this image and that of the scenario leave the same, burns must, too.
  void Compare() {
    const std::string other = _folder.Write(Text("other-", _seed, ".img"), _scenario.text);
    std::vector<std::string> words = {_programs.fwimg, "diff"};
    if (_image.IsFlash()) {
      words.insert(words.end(),
                   {"--sector-size", std::to_string(sim::SectorSizeOf(FirstTarget(_scenario)))});
    }
    words.insert(words.end(), {other, _file});
    const Ended diff = RunProgram(words);
    ++_statistics.compared;
    if (diff.status != 0) return;
    ++_statistics.said_same;
    std::vector<BurnKind> kinds = {BurnKind::PLAIN};
    if (HasSlots()) kinds.push_back(BurnKind::FAILSAFE);
    for (const BurnKind kind : kinds) {
      for (const StartState& state : StatesFor(kind)) {
        const auto burnt = BurntWith(_file, state, kind);
        if (burnt == BurntWith(other, state, kind)) continue;
        Tell(diff.output);
        return FalseClaim(Text("diff says that both leave the same, ", state.name,
                               kind == BurnKind::PLAIN ? ", -n" : ""));
      }
    }
  }

  /// How a burn ends, and the memory that it leaves.
  std::pair<int, device::Bytes> BurntWith(const std::string& file, const StartState& state,
                                          BurnKind kind) {
    sim::Fabric fabric;
    if (!SetUp(_scenario, state, kind, _scenario.image, fabric)) return {};
    const device::Guid guid = fabric.Devices().begin()->first;
    const trials::RunOutcome run = RunAt(BurnWords(guid, kind, file), fabric);
    return {run.status, sim::MemoryOf(*fabric.Find(guid), _image).bytes};
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
    const trials::RunOutcome run = RunAt(words, fabric);
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
    if (const Ended again = VerifyOnce(fabric, guid, kind); again.status != common::DIFFERS) {
      FalseClaim(Text("the byte at 0x", std::hex, addr, std::dec,
                      " differs, and the verification ends with ", again.status, ": ", again.output,
                      again.errors));
    }
    sim::LoadMemory(device, _image, memory);
  }

  // ---- Helpers

  /// Runs the program with the fabric behind its server.
  trials::RunOutcome RunAt(const std::vector<std::string>& words, sim::Fabric& fabric) {
    trials::FabricResponder devices(fabric);
    return _server.Run(words, devices, nullptr, LIMIT);
  }

  /// Runs a program that needs no server.
  Ended RunProgram(const std::vector<std::string>& words) {
    sim::Fabric none;
    const trials::RunOutcome run = RunAt(words, none);
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
  bool _loses_section = false;
  bool _plain_burn_may_not_boot = false;
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
  not_rehearsed += other.not_rehearsed;
  verified += other.verified;
  flipped += other.flipped;
  mixes += other.mixes;
  compared += other.compared;
  said_same += other.said_same;
  AddCounts(kinds, other.kinds);
  AddCounts(burnt_with_error, other.burnt_with_error);
  AddCounts(mistakes, other.mistakes);
  case_of.insert(other.case_of.begin(), other.case_of.end());
  not_run.insert(not_run.end(), other.not_run.begin(), other.not_run.end());
  false_claims.insert(false_claims.end(), other.false_claims.begin(), other.false_claims.end());
  return *this;
}

Statistics CaseRunner::Run(std::uint64_t seed) {
  try {
    return Case(_folder, _programs, _out, _server, seed).Run();
  } catch (const std::exception& error) {
    Statistics statistics;
    statistics.images = 1;
    statistics.not_run.push_back(Text("--case ", seed, ": ", error.what()));
    return statistics;
  }
}

}  // namespace search
