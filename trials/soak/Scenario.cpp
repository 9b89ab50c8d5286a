#include "trials/soak/Scenario.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "common/Text.h"
#include "sim/Filling.h"
#include "trials/ServedFabric.h"
#include "trials/soak/ImageText.h"

namespace soak {

using common::Text;
using device::Burn;
using sim::IdentityOf;
using sim::LoadMemory;
using sim::MemoryOf;

namespace {

constexpr int TRIES = 4000;

/// What a slot holds at the start.
enum class SlotContents { BLANK, NOISE, INVALID, SIGNED_WRONG, VALID };

class ScenarioMaker {
 public:
  explicit ScenarioMaker(std::uint64_t seed) : _random(seed) { _scenario.seed = seed; }

  Scenario Make() {
    const std::uint32_t kind = _random.Below(100);
    const std::uint32_t ports = _random.Chance(60) ? 2 : 4;
    _most_ports = ports;
    if (kind < 30) {
      SetUpEeproms();
    } else if (kind < 45) {
      SetUpFlash();
    } else if (kind < 75) {
      SetUpPointerSectors();
    } else {
      SetUpBootRecords();
    }
    if (_random.Chance(8) && _scenario.row.empty() && !_scenario.rewrites_invariant) MakeRefused();
    ChooseServer();
    _scenario.text = TextOf(_image, _random);
    _scenario.image = _image.Loaded();
    WriteSwitches();
    _scenario.requests = CountRequests();
    return std::move(_scenario);
  }

 private:
  template <typename Thing>
  Thing RetryUntilMade(const std::function<std::optional<Thing>()>& make) {
    for (int i = 0; i < TRIES; ++i) {
      if (auto made = make()) return std::move(*made);
    }
    throw std::runtime_error(Text("scenario ", _scenario.seed, " finds no image that fits"));
  }

  // ---- The four kinds

  void SetUpEeproms() {
    _scenario.kind = "EEPROM, generic";
    _layout = MakeEeproms(_random);
    _layout.may_have_guids = _most_ports <= 2;
    const bool is_record_type = _random.Chance(40);
    _image.image = RetryUntilMade<Image>([&] {
      _layout = MakeEeproms(_random);
      _layout.may_have_guids = _most_ports <= 2;
      return MakeGeneric(_layout, _random);
    });
    _image.SetType(is_record_type ? "RV61300" : "RV61100");
    _image.type_after_fields = _random.Chance(20);
    if (is_record_type || _random.Chance(30)) _scenario.switches.push_back("-n");
    for (const Guid guid : AddDevices(_random.Between(1, 6), _random.Below(4))) {
      sim::Device& device = *_scenario.fabric.Find(guid);
      LoadMemory(device, _image.image, Filled(_layout.size));
    }
  }

  void SetUpFlash() {
    _scenario.kind = "flash, generic";
    _image.image = RetryUntilMade<Image>([&] {
      _layout = MakeFlash(_random, _random.Between(2, 16));
      _layout.may_have_guids = _most_ports <= 2;
      return MakeGeneric(_layout, _random);
    });
    _image.SetType(FlashType());
    _scenario.switches.push_back("-n");
    for (const Guid guid : AddDevices(1, _random.Below(3))) {
      LoadMemory(*_scenario.fabric.Find(guid), _image.image, Filled(_layout.size));
    }
  }

  void SetUpPointerSectors() {
    _scenario.burn = BurnKind::FAILSAFE;
    const bool changes_invariant = _random.Chance(8);
    SlotContents contents[2] = {PickSlotContents(), PickSlotContents()};
    if (contents[0] != SlotContents::VALID && contents[1] != SlotContents::VALID)
      contents[_random.Below(2)] = SlotContents::VALID;
    const bool may_be_unsafe = _random.Chance(6);
    if (may_be_unsafe && _random.Chance(30)) {
      contents[contents[0] == SlotContents::VALID ? 1 : 0] = SlotContents::SIGNED_WRONG;
      _scenario.row = "a signature over a wrong record";
    }
    // A scenario has one reason at most.
    const bool takes_unsafe = may_be_unsafe && _scenario.row.empty();
    int tries_for_unsafe = takes_unsafe ? TRIES / 4 : 0;
    const std::string type = FlashType();
    // Random choices rarely lead to a move.
    const bool is_second = contents[0] != SlotContents::VALID && contents[1] == SlotContents::VALID;
    int tries_for_move = is_second && _random.Chance(35) ? TRIES / 4 : 0;
    std::vector<Section> old_invariant;
    struct Pair {
      Image before;
      Image after;
    };
    Pair pair = RetryUntilMade<Pair>([&]() -> std::optional<Pair> {
      _layout = MakeFlash(_random, _random.Between(8, 24));
      _layout.may_have_guids = _most_ports <= 2;
      SlotPlaces slots;
      const bool is_behind = _random.Chance(10);
      const std::uint32_t first = is_behind ? _layout.size / _layout.sector_size - 2 : 1;
      if (is_behind) _layout.image_end = first * _layout.sector_size;
      for (const std::uint32_t i : {0u, 1u}) slots.ps[i] = (first + i) * _layout.sector_size;
      if (_random.Chance(15)) std::swap(slots.ps[0], slots.ps[1]);
      const auto invariant = MakeInvariant(_layout, _random);
      old_invariant = changes_invariant ? MakeInvariant(_layout, _random) : invariant;
      // Such a device has only one of the images, as they overlap.
      slots.may_overlap = may_be_unsafe && contents[0] != SlotContents::VALID && _random.Chance(50);
      auto before = MakePointers(_layout, slots, old_invariant, _random);
      slots.may_overlap = false;
      auto after = MakePointers(_layout, slots, invariant, _random);
      if (!before || !after) return {};
      const std::uint32_t end = after->SlotBytes() + 3 * _layout.sector_size;
      if (--tries_for_move > 0 && *before->slots[1].image >= end) return {};
      const std::string row = UnsafeRow(*before, *after, contents);
      if (!row.empty() && !takes_unsafe) return {};
      if (--tries_for_unsafe > 0 && row.empty()) return {};
      if (!row.empty()) _scenario.row = row;
      before->type = after->type = device::FindDeviceType(type);
      // Only a move reads the size, which may be odd.
      if (_random.Chance(20)) {
        const auto ps = std::ranges::find(before->sections, slots.ps[1], &Section::addr);
        ps->data[7] = static_cast<std::uint8_t>(ps->data[7] - _random.Below(ps->data[7] % 4 + 1));
      }
      return Pair{std::move(*before), std::move(*after)};
    });
    _image.image = std::move(pair.after);
    _image.SetType(type);
    _scenario.rewrites_invariant = changes_invariant;
    const bool is_valid[] = {contents[0] == SlotContents::VALID,
                             contents[1] == SlotContents::VALID};
    const bool is_moved =
        *pair.before.slots[1].image < _image.image.SlotBytes() + 3 * _layout.sector_size;
    _scenario.kind = is_valid[0] && is_valid[1] ? "flash, failsafe, both valid"
                     : is_valid[0]              ? "flash, failsafe, first valid"
                     : is_moved                 ? "flash, failsafe, second moved"
                                                : "flash, failsafe, second valid";
    if (_random.Chance(7)) {
      _scenario.kind = "flash, two slots, -n";
      _scenario.burn = BurnKind::PLAIN;
      _scenario.switches.push_back("-n");
      _scenario.row.clear();
    }
    const std::vector<Guid> nodes = AddDevices(1, _random.Below(3));
    for (const Guid guid : nodes) {
      sim::Device& device = *_scenario.fabric.Find(guid);
      const Burn old(pair.before, BurnKind::FAILSAFE, IdentityOf(device));
      Memory memory = Filled(_layout.size);
      // Without an old image the sectors may hold anything but a signature.
      old.BurnInvariantSector(memory);
      for (const std::uint32_t slot : {0u, 1u})
        FillSlot(memory, old, pair.before, slot, contents[slot]);
      LoadMemory(device, _image.image, memory);
      AddJudge(device, pair.before, memory);
    }
  }

  void SetUpBootRecords() {
    _scenario.kind = "EEPROM, failsafe";
    _scenario.burn = BurnKind::FAILSAFE;
    struct Pair {
      Image before;
      Image after;
    };
    Pair pair = RetryUntilMade<Pair>([&]() -> std::optional<Pair> {
      _layout = MakeEeproms(_random);
      _layout.may_have_guids = _most_ports <= 2;
      SlotPlaces slots;
      slots.slot[0] = _random.Chance(60) ? 0 : _random.Below(_layout.size / 4);
      slots.slot[1] = _layout.map.size() > 1 && _random.Chance(60)
                          ? _layout.map[0].size
                          : slots.slot[0] + _random.Below(_layout.size);
      if (slots.slot[1] <= slots.slot[0]) return {};
      auto before = MakeRecords(_layout, slots, _random);
      auto after = MakeRecords(_layout, slots, _random);
      if (!before || !after) return {};
      before->type = after->type = device::FindDeviceType("RV61300");
      return Pair{std::move(*before), std::move(*after)};
    });
    _image.image = std::move(pair.after);
    _image.SetType("RV61300");
    if (_random.Chance(4)) SpoilRecord();
    for (const Image* image : {&pair.before, &_image.image}) {
      const device::Bytes& data = image->SlotSections().front()->data;
      _scenario.boot_records.emplace_back(data.begin(), data.begin() + device::BOOT_RECORD_SIZE);
    }
    if (_random.Chance(5)) {
      _scenario.switches.push_back("-c");
      _scenario.check_only = true;
    }
    for (const Guid guid : AddDevices(_random.Between(1, 6), _random.Below(4))) {
      sim::Device& device = *_scenario.fabric.Find(guid);
      const Burn old(pair.before, BurnKind::FAILSAFE, IdentityOf(device));
      Memory memory = Filled(_layout.size);
      for (const std::uint32_t slot : {0u, 1u}) {
        const SlotContents contents = PickSlotContents();
        FillSlot(memory, old, pair.before, slot, contents);
      }
      const bool is_first = guid == _first;
      if (is_first && !old.Boots(memory, 0) && !old.Boots(memory, 1)) {
        FillSlot(memory, old, pair.before, _random.Below(2), SlotContents::VALID);
      }
      LoadMemory(device, _image.image, memory);
      if (old.Boots(memory, 0) || old.Boots(memory, 1)) AddJudge(device, pair.before, memory);
    }
  }

  /// Makes the image one that can never be valid.
  void SpoilRecord() {
    const std::uint32_t first = *_image.image.slots[0].image;
    const auto section = std::ranges::find(_image.image.sections, first, &Section::addr);
    if (_random.Chance(50)) {
      section->data[5] ^= 4;
      _scenario.row = "an image whose record has a wrong sum";
    } else {
      section->data[9] = static_cast<std::uint8_t>(section->data[9] + section->data[7] - 1);
      section->data[7] = 1;
      _scenario.row = "an image with 1 in byte 7 of its record";
    }
  }

  // ---- What devices hold

  SlotContents PickSlotContents() {
    return _random.OneOf({SlotContents::BLANK, SlotContents::NOISE, SlotContents::INVALID,
                          SlotContents::VALID, SlotContents::VALID});
  }

  void FillSlot(Memory& memory, const Burn& old, const Image& image, std::uint32_t slot,
                SlotContents contents) {
    const bool has_pointers = image.Slots() == SlotKind::POINTER_SECTORS;
    if (contents != SlotContents::BLANK && contents != SlotContents::NOISE) {
      old.Fill(memory, {.slot = slot});
    }
    const device::Slot& place = image.slots[slot];
    const std::uint32_t record = has_pointers ? *place.pointer_sector : *place.image;
    const std::uint32_t size =
        has_pointers ? device::POINTER_RECORD_SIZE : device::BOOT_RECORD_SIZE;
    if (contents == SlotContents::BLANK)
      std::fill_n(memory.bytes.begin() + record, size, std::uint8_t{0xFF});
    if (contents == SlotContents::NOISE) {
      std::ranges::copy(_random.Bytes(size), memory.bytes.begin() + record);
    }
    if (contents == SlotContents::SIGNED_WRONG) memory.bytes[record + 20] ^= 2;
    if (contents == SlotContents::VALID || contents == SlotContents::SIGNED_WRONG) return;
    if (has_pointers && (contents == SlotContents::INVALID || old.IsSigned(memory, slot))) {
      std::fill_n(memory.bytes.begin() + record + device::RECORD_SIGNATURE, 4, std::uint8_t{0});
    }
    if (!has_pointers && old.Boots(memory, slot)) memory.bytes[record + 3] ^= 0x40;
  }

  Memory Filled(std::uint32_t size) {
    Memory memory;
    memory.sector_size = _layout.sector_size;
    memory.bytes = device::Bytes(size, _random.OneOf<std::uint8_t>({0xFF, 0x00, 0xEE}));
    if (_random.Chance(50)) memory.bytes = _random.Bytes(size);
    return memory;
  }

  /// Tells the device's judge of the old and of the new image.
  void AddJudge(const sim::Device& device, const Image& old_image, const Memory& now) {
    if (!_selected.contains(device.node_guid) || _scenario.burn == BurnKind::PLAIN) return;
    device::Judge judge(device::LayoutOf(_image.image, now.sector_size).value(), now.bytes);
    judge.AddPresentInvariantSector();
    const device::Identity identity = IdentityOf(device);
    if (!judge.AddKnownImage(old_image, identity, now, device::Whole::OLD) ||
        !judge.AddKnownImage(_image.image, identity, now, device::Whole::NEW,
                             device::Origin::FAILSAFE_BURN)) {
      throw std::logic_error("the images of a scenario have their slots in different places");
    }
    _scenario.judges.emplace(device.node_guid, std::move(judge));
  }

  /// The row of docs/fail-safety.md by which a burn of `after` over `before` is not failsafe; empty
  /// where it is.
  std::string UnsafeRow(const Image& before, const Image& after,
                        const SlotContents (&contents)[2]) const {
    const char* const reaches = "a first image that reaches into the second slot";
    const std::uint32_t to = 3 * _layout.sector_size;
    const std::uint32_t old_end = _layout.RoundUp(*before.slots[0].image + SlotExtent(before));
    if (contents[0] == SlotContents::VALID && old_end > *after.slots[1].image) return reaches;
    if (contents[1] != SlotContents::VALID) return "";
    if (*before.slots[1].image >= to + after.SlotBytes()) {
      const std::uint32_t new_end = _layout.RoundUp(*after.slots[0].image + SlotExtent(after));
      if (new_end <= *before.slots[1].image) return "";
      const bool is_gap = SlotExtent(after) != after.SlotBytes();
      return is_gap ? "a new first image with gaps" : "a new first image behind the fourth sector";
    }
    const std::uint32_t moved_end = _layout.RoundUp(to + SlotExtent(before));
    if (moved_end > *before.slots[1].image) return "moving an image onto itself";
    return moved_end > *after.slots[1].image ? reaches : "";
  }

  std::string FlashType() {
    return _random.OneOf<const char*>({"RV52100", "RV52300", "RV52310", "RV52400", "RV52410"});
  }

  // ---- The fabric

  /// Adds the targets, then other devices. Returns all of them in this order.
  std::vector<Guid> AddDevices(std::uint32_t selected, std::uint32_t others) {
    std::vector<Guid> nodes;
    const bool is_flash = _layout.IsFlash();
    for (std::uint32_t i = 0; i < selected + others; ++i) {
      sim::Device device;
      device.node_guid = NewGuid();
      const std::uint32_t ports = _random.Between(1, _most_ports);
      for (std::uint32_t port = 0; port < ports; ++port) device.port_guids.push_back(NewGuid());
      device.sys_guid = _random.Chance(30) ? device.node_guid : NewGuid();
      device.declared_ports = ports;
      device.bsn = _random.Bytes(sim::BSN_SIZE);
      device.vsd = _random.Bytes(sim::VSD_SIZE);
      device.kind = is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
      const auto add_chip = [&](std::uint8_t address, std::uint32_t size) {
        device.chips.try_emplace(
            address, sim::Chip(std::make_unique<sim::Cells>(size), _layout.sector_size));
      };
      if (_layout.map.empty()) add_chip(0, _layout.size);
      for (const MappedChip& chip : _layout.map) {
        add_chip(chip.chip, chip.size + (_random.Chance(30) ? 64 : 0));
      }
      if (!is_flash && _random.Chance(30)) add_chip(0x70, 64);
      const Guid node = device.node_guid;
      const std::vector<Guid> port_guids = device.port_guids;
      _scenario.fabric.Add(std::move(device));
      nodes.push_back(node);
      if (i >= selected) continue;
      if (i == 0) _first = node;
      _selected.insert(node);
      _scenario.targets.insert(_random.Chance(25) ? port_guids[_random.Below(port_guids.size())]
                                                  : node);
    }
    if (!is_flash && _random.Chance(10)) _scenario.targets.insert(NewGuid());
    _scenario.server_type =
        is_flash ? _random.OneOf<const char*>({"IB", "PCI", "PPC", "I2C"})
                 : _random.OneOf<const char*>({"I2C", "I2C", "I2C", "IB", "PCI", "PPC"});
    _scenario.log2_chunk = _layout.log2_chunk;
    sim::ServerFacts& facts = _scenario.fabric.facts;
    facts.type = _scenario.server_type;
    facts.multi_max = Text(_random.Between(selected, selected + _random.Below(100)));
    if (selected == 1 && _random.Chance(10)) facts.multi_max = "many";
    facts.ifc_version = _random.OneOf<const char*>({"2.2", "2.2", "2.20", "2.3", "3", "10.5"});
    return nodes;
  }

  Guid NewGuid() {
    for (;;) {
      const Guid guid = _random.Chance(50) ? _random.Seed() : 1 + _random.Below(0xFFFFFF);
      if (_guids.insert(guid).second) return guid;
    }
  }

  // ---- What must be refused

  /// Changes the scenario so that the burn must be refused and write nothing.
  void MakeRefused() {
    const bool is_flash = _layout.IsFlash();
    Image& image = _image.image;
    const SlotKind slots = _scenario.burn == BurnKind::PLAIN ? SlotKind::NONE : image.Slots();
    _scenario.kind = "refused";
    // A device that is missing would end the burn with another error.
    std::erase_if(_scenario.targets,
                  [&](Guid guid) { return _scenario.fabric.Find(guid) == nullptr; });
    switch (_random.Below(9)) {
      case 0:
        _image.SetType("RV61200");
        _scenario.refusal = "Device RV0 Rom Interface not supported yet";
        return;
      case 1:
        _scenario.fabric.facts.ifc_version = _random.OneOf<const char*>({"2.1", "1", "2.19", "0"});
        _scenario.refusal = "The required version is 2.2 or above";
        return;
      case 2:
        if (is_flash) {
          _scenario.targets.insert(NewGuid());
          _scenario.refusal = "the flash sector size is unknown";
          if (slots == SlotKind::POINTER_SECTORS) {
            _scenario.refusal = "The flash sector size is unknown. Can't perform failsafe burn";
          }
          return;
        }
        if (_scenario.targets.size() > 1) {
          _scenario.fabric.facts.multi_max = Text(_scenario.targets.size() - 1);
          _scenario.refusal = "Multi max violation. Server capability: ";
          return;
        }
        break;
      case 3:
        _scenario.targets = {NewGuid()};
        _scenario.refusal = "No more accessible devices";
        return;
      case 4:
        if (slots != SlotKind::NONE) {
          image.slots[1].image.reset();
          _scenario.refusal = "FwImage: Tried to access uninitiated field Image Addr[1]";
          return;
        }
        if (const Section& first = image.sections.front(); SizeOf(first) >= 8) {
          const bool is_field = _random.Chance(50);
          if (is_field) image.fields.push_back({FieldType::GUID, EndOf(first) - 4});
          if (!is_field) image.crcs.push_back({EndOf(first) - 8, 12, first.addr});
          _scenario.refusal = is_field ? "Replace field (from:" : "Replace CRC (from:";
          return;
        }
        break;
      case 5:
        if (slots != SlotKind::POINTER_SECTORS) break;
        image.slots[1].pointer_sector = _layout.size;
        image.slots[1].signature = _layout.size + device::RECORD_SIGNATURE;
        _scenario.refusal = "The image has no section at its pointer sector address ";
        return;
      case 6:
        if (slots == SlotKind::NONE) break;
        InvalidateImages();
        return;
      default:
        break;
    }
    SpoilImageText();
  }

  void InvalidateImages() {
    const Image& image = _image.image;
    const bool has_pointers = image.Slots() == SlotKind::POINTER_SECTORS;
    for (auto& [guid, device] : _scenario.fabric.Devices()) {
      Memory memory = MemoryOf(device, image);
      for (const std::uint32_t slot : {0u, 1u}) {
        if (has_pointers) memory.bytes[*image.slots[slot].signature] = 0;
        if (!has_pointers && Burn(image, _scenario.burn, IdentityOf(device)).Boots(memory, slot)) {
          memory.bytes[*image.slots[slot].image] ^= 1;
        }
      }
      if (has_pointers && _random.Chance(50)) memory.bytes[device::FAILSAFE_MARKER] = 0;
      LoadMemory(device, image, memory);
    }
    _scenario.refusal =
        has_pointers ? "No more accessible devices" : "All devices can't be failsafe burnt";
  }

  void SpoilImageText() {
    const device::ChipPlace place = PlaceOf(_image.image, 0);
    const std::string location = Text(std::hex, place.offset, " ", std::uint32_t{place.chip});
    const struct {
      std::string line;
      const char* reason;
    } rows[] = {
        {"REPLACE MAC " + location, "Unknown replace field type 'MAC' ."},
        {"IMAGE 2 " + location, "image index (2) can be iether 0 or 1"},
        {"REPLACE GUID 0", "'REPLACE' directive must contain 4words."},
        {"REPLACE CRC 0 0 0", "'REPLACE' directive must contain 8words."},
        {"DEVMAP 10", "'DEVMAP' directive must contain 3words."},
        {"DEVMAP 10 150", "Device addr must be 8 bits (150)."},
        {"PS 0 1g 0", "Error parsing offset (1g)."},
        {"START A 0", "START line must give a name, an offset and a device."},
        {"START Z " + location + "\n1 2 3\nEND Z",
         "Section data line must have multiple of 4 bytes."},
        {"START Z " + location + "\n1 2 0g 3\nEND Z", "Data byte (0g) contains invalid characters"},
        {"START Z " + location + "\n1 2 3 4\nEND Y",
         "END Section name (Y) differs from start section name (Z)."},
        {"REPLACE GUID 0 ee", "No mapping for the given EE loaction  (ee:"},
    };
    const auto& row = rows[_random.Below(std::size(rows))];
    _image.bad_lines = {row.line};
    _scenario.refusal = row.reason;
  }

  // ---- The server

  /// A third of the scenarios is served by fwpush-serve's gateway: with the facts that it has, and
  /// but for a burn that an old version must refuse. Draws nothing, so that the others stay as they
  /// are.
  void ChooseServer() {
    constexpr std::uint64_t GOLDEN_RATIO = 0x9E3779B97F4A7C15;  // spreads neighbouring seeds
    if ((_scenario.seed * GOLDEN_RATIO >> 32) % 3 != 0) return;
    if (_scenario.refusal.find("required version") != std::string::npos) return;
    sim::ServerFacts& facts = _scenario.fabric.facts;
    facts.ifc_version = "2.2";
    if (facts.multi_max == "many") facts.multi_max = "1";
    const std::string why = trials::ServedFabric::WhyNotServed(_scenario.fabric);
    if (!why.empty()) throw std::logic_error("fwpush-serve cannot serve the scenario: " + why);
    _scenario.is_served = true;
  }

  // ---- The command line

  void WriteSwitches() {
    std::vector<std::string>& words = _scenario.switches;
    if (_scenario.log2_chunk != 5 || _random.Chance(30)) {
      if (_random.Chance(50)) {
        words.push_back(Text("-m=", _scenario.log2_chunk));
      } else {
        words.insert(words.end(), {"-m", Text(_scenario.log2_chunk)});
      }
    }
    std::vector<Guid> guids(_scenario.targets.begin(), _scenario.targets.end());
    _random.Shuffle(guids);
    if (_random.Chance(10)) guids.push_back(guids.front());
    std::string list;
    for (const Guid guid : guids) {
      list += Text(list.empty() ? "" : ",", _random.Chance(30) ? "0x" : "", std::hex, guid);
      if (!_random.Chance(15)) continue;
      words.insert(words.end(), {"-g", list});
      list.clear();
    }
    if (!list.empty()) words.insert(words.end(), {"-g", list});
  }

  /// Estimates the requests of a fault-free run, for the choice of where to inject faults.
  std::uint32_t CountRequests() const {
    const std::uint32_t chunk = 1u << _scenario.log2_chunk;
    std::uint32_t writes = 0;
    for (const Section& section : _image.image.sections) writes += SizeOf(section) / chunk + 1;
    const auto type =
        static_cast<std::uint32_t>(_image.image.fields.size() + _image.image.crcs.size());
    const auto devices = static_cast<std::uint32_t>(_scenario.targets.size());
    std::uint32_t count =
        writes * (_scenario.Slots() == SlotKind::BOOT_RECORDS ? 2 : 1) + type * devices;
    if (_scenario.Verifies()) count *= 2;
    return 5 + count + (_scenario.burn == BurnKind::PLAIN ? 0 : 4);
  }

  Random _random;
  Scenario _scenario;
  RandomImage _image;  ///< of the scenario
  MemoryLayout _layout;
  std::uint32_t _most_ports = 2;
  Guid _first = 0;
  GuidSet _selected;  ///< nodes
  GuidSet _guids;     ///< those in use
};

}  // namespace

Scenario MakeScenario(std::uint64_t seed) { return ScenarioMaker(seed).Make(); }

}  // namespace soak
