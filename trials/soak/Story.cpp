#include "trials/soak/Story.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "src/utils.h"
#include "trials/soak/ImageMaker.h"

namespace soak {

namespace {

constexpr int TRIES = 4000;

/// What a slot holds when the story begins.
enum class Held { BLANK, NOISE, INVALID, SIGNED_WRONG, VALID };

class Teller {
 public:
  explicit Teller(u_int64_t seed) : _dice(seed) { _story.seed = seed; }

  Story Tell() {
    const u_int32_t kind = _dice.Below(100);
    const u_int32_t ports = _dice.Chance(60) ? 2 : 4;
    _most_ports = ports;
    if (kind < 30) {
      TellEeproms();
    } else if (kind < 45) {
      TellFlash();
    } else if (kind < 75) {
      TellPointers();
    } else {
      TellRecords();
    }
    if (_dice.Chance(8) && _story.row.empty() && !_story.rewrites_invariant) Forbid();
    _story.text = TextOf(_story.image, _dice);
    WriteSwitches();
    _story.requests = CountRequests();
    return std::move(_story);
  }

 private:
  template <typename Thing>
  Thing Insist(const std::function<std::optional<Thing>()>& make) {
    for (int i = 0; i < TRIES; ++i) {
      if (auto made = make()) return std::move(*made);
    }
    throw std::runtime_error(Text("story ", _story.seed, " cannot be made up"));
  }

  // ---- The four kinds

  void TellEeproms() {
    _story.kind = "EEPROM, generic";
    _ground = MakeEeproms(_dice);
    _ground.may_have_guids = _most_ports <= 2;
    const bool is_record_type = _dice.Chance(40);
    _story.image = Insist<Image>([&] {
      _ground = MakeEeproms(_dice);
      _ground.may_have_guids = _most_ports <= 2;
      return MakeGeneric(_ground, _dice);
    });
    _story.image.type = is_record_type ? "RV61300" : "RV61100";
    _story.image.bsn_first = _dice.Chance(20);
    if (is_record_type || _dice.Chance(30)) _story.switches.push_back("-n");
    for (const Guid guid : AddDevices(_dice.Between(1, 6), _dice.Below(4))) {
      sim::Device& device = *_story.fabric.Find(guid);
      Load(device, _story.image, Filled(_ground.size));
    }
  }

  void TellFlash() {
    _story.kind = "flash, generic";
    _story.image = Insist<Image>([&] {
      _ground = MakeFlash(_dice, _dice.Between(2, 16));
      _ground.may_have_guids = _most_ports <= 2;
      return MakeGeneric(_ground, _dice);
    });
    _story.image.type = FlashType();
    _story.switches.push_back("-n");
    for (const Guid guid : AddDevices(1, _dice.Below(3))) {
      Load(*_story.fabric.Find(guid), _story.image, Filled(_ground.size));
    }
  }

  void TellPointers() {
    _story.burn = BurnKind::POINTERS;
    const bool changes_invariant = _dice.Chance(8);
    Held held[2] = {PickHeld(), PickHeld()};
    if (held[0] != Held::VALID && held[1] != Held::VALID) held[_dice.Below(2)] = Held::VALID;
    const bool may_be_unsafe = _dice.Chance(6);
    if (may_be_unsafe && _dice.Chance(30)) {
      held[held[0] == Held::VALID ? 1 : 0] = Held::SIGNED_WRONG;
      _story.row = "a signature over a wrong record";
    }
    // One reason a story.
    const bool takes_unsafe = may_be_unsafe && _story.row.empty();
    int insists_on_unsafe = takes_unsafe ? TRIES / 4 : 0;
    const std::string type = FlashType();
    // Rare by chance.
    const bool is_second = held[0] != Held::VALID && held[1] == Held::VALID;
    int insists_on_move = is_second && _dice.Chance(35) ? TRIES / 4 : 0;
    std::vector<Section> old_invariant;
    struct Pair {
      Image before;
      Image after;
    };
    Pair pair = Insist<Pair>([&]() -> std::optional<Pair> {
      _ground = MakeFlash(_dice, _dice.Between(8, 24));
      _ground.may_have_guids = _most_ports <= 2;
      Slots slots;
      const bool is_behind = _dice.Chance(10);
      const u_int32_t first = is_behind ? _ground.size / _ground.sector_size - 2 : 1;
      if (is_behind) _ground.image_end = first * _ground.sector_size;
      for (const u_int32_t i : {0u, 1u}) slots.ps[i] = (first + i) * _ground.sector_size;
      if (_dice.Chance(15)) std::swap(slots.ps[0], slots.ps[1]);
      const auto invariant = MakeInvariant(_ground, _dice);
      old_invariant = changes_invariant ? MakeInvariant(_ground, _dice) : invariant;
      // The first image of such a file would cost the second one; a device has either.
      slots.may_overlap = may_be_unsafe && held[0] != Held::VALID && _dice.Chance(50);
      auto before = MakePointers(_ground, slots, old_invariant, _dice);
      slots.may_overlap = false;
      auto after = MakePointers(_ground, slots, invariant, _dice);
      if (!before || !after) return {};
      const u_int32_t end = after->SlotBytes() + 3 * _ground.sector_size;
      if (--insists_on_move > 0 && before->slot[1] >= end) return {};
      const std::string row = UnsafeRow(*before, *after, held);
      if (!row.empty() && !takes_unsafe) return {};
      if (--insists_on_unsafe > 0 && row.empty()) return {};
      if (!row.empty()) _story.row = row;
      before->type = after->type = type;
      // A second image of an odd size can only be moved.
      if (_dice.Chance(20)) {
        const auto ps = std::ranges::find(before->sections, slots.ps[1], &Section::addr);
        ps->data[7] = static_cast<u_int8_t>(ps->data[7] - _dice.Below(ps->data[7] % 4 + 1));
      }
      return Pair{std::move(*before), std::move(*after)};
    });
    _story.image = std::move(pair.after);
    _story.rewrites_invariant = changes_invariant;
    const bool is_valid[] = {held[0] == Held::VALID, held[1] == Held::VALID};
    const bool is_moved = pair.before.slot[1] < _story.image.SlotBytes() + 3 * _ground.sector_size;
    _story.kind = is_valid[0] && is_valid[1] ? "flash, failsafe, both valid"
                  : is_valid[0]              ? "flash, failsafe, first valid"
                  : is_moved                 ? "flash, failsafe, second moved"
                                             : "flash, failsafe, second valid";
    if (_dice.Chance(7)) {
      _story.kind = "flash, two slots, -n";
      _story.burn = BurnKind::GENERIC;
      _story.switches.push_back("-n");
      _story.row.clear();
    }
    const GuidVec nodes = AddDevices(1, _dice.Below(3));
    for (const Guid guid : nodes) {
      sim::Device& device = *_story.fabric.Find(guid);
      const Oracle old(pair.before, BurnKind::POINTERS, device);
      Memory memory = Filled(_ground.size);
      // Where there is no old image the sectors may hold anything but a signature.
      old.BurnInvariantSector(memory);
      for (const u_int32_t slot : {0u, 1u}) Hold(memory, old, pair.before, slot, held[slot]);
      Load(device, _story.image, memory);
      Know(device, pair.before, memory);
    }
  }

  void TellRecords() {
    _story.kind = "EEPROM, failsafe";
    _story.burn = BurnKind::RECORDS;
    struct Pair {
      Image before;
      Image after;
    };
    Pair pair = Insist<Pair>([&]() -> std::optional<Pair> {
      _ground = MakeEeproms(_dice);
      _ground.may_have_guids = _most_ports <= 2;
      Slots slots;
      slots.slot[0] = _dice.Chance(60) ? 0 : _dice.Below(_ground.size / 4);
      slots.slot[1] = _ground.map.size() > 1 && _dice.Chance(60)
                          ? _ground.map[0].size
                          : slots.slot[0] + _dice.Below(_ground.size);
      if (slots.slot[1] <= slots.slot[0]) return {};
      auto before = MakeRecords(_ground, slots, _dice);
      auto after = MakeRecords(_ground, slots, _dice);
      if (!before || !after) return {};
      before->type = after->type = "RV61300";
      return Pair{std::move(*before), std::move(*after)};
    });
    _story.image = std::move(pair.after);
    if (_dice.Chance(4)) SpoilRecord();
    if (_dice.Chance(5)) {
      _story.switches.push_back("-c");
      _story.check_only = true;
    }
    for (const Guid guid : AddDevices(_dice.Between(1, 6), _dice.Below(4))) {
      sim::Device& device = *_story.fabric.Find(guid);
      const Oracle old(pair.before, BurnKind::RECORDS, device);
      Memory memory = Filled(_ground.size);
      for (const u_int32_t slot : {0u, 1u}) {
        const Held held = PickHeld();
        Hold(memory, old, pair.before, slot, held);
      }
      const bool is_first = guid == _first;
      if (is_first && !old.IsValid(memory, 0) && !old.IsValid(memory, 1)) {
        Hold(memory, old, pair.before, _dice.Below(2), Held::VALID);
      }
      Load(device, _story.image, memory);
      if (old.IsValid(memory, 0) || old.IsValid(memory, 1)) Know(device, pair.before, memory);
    }
  }

  /// An image that can never be valid.
  void SpoilRecord() {
    const u_int32_t first = _story.image.slot[0];
    const auto section = std::ranges::find(_story.image.sections, first, &Section::addr);
    if (_dice.Chance(50)) {
      section->data[5] ^= 4;
      _story.row = "an image whose record has a wrong sum";
    } else {
      section->data[9] = static_cast<u_int8_t>(section->data[9] + section->data[7] - 1);
      section->data[7] = 1;
      _story.row = "an image with 1 in byte 7 of its record";
    }
  }

  // ---- What devices hold

  Held PickHeld() {
    return _dice.OneOf({Held::BLANK, Held::NOISE, Held::INVALID, Held::VALID, Held::VALID});
  }

  void Hold(Memory& memory, const Oracle& old, const Image& image, u_int32_t slot, Held held) {
    const bool has_pointers = image.ps[0] != UNPLACED;
    if (held != Held::BLANK && held != Held::NOISE) old.BurnSlot(memory, slot);
    const u_int32_t record = has_pointers ? image.ps[slot] : image.slot[slot];
    const u_int32_t size = has_pointers ? RECORD_SIZE : 16;
    if (held == Held::BLANK) std::fill_n(memory.bytes.begin() + record, size, u_int8_t{0xFF});
    if (held == Held::NOISE) {
      std::ranges::copy(_dice.Bytes(size), memory.bytes.begin() + record);
    }
    if (held == Held::SIGNED_WRONG) memory.bytes[record + 20] ^= 2;
    if (held == Held::VALID || held == Held::SIGNED_WRONG) return;
    if (has_pointers && (held == Held::INVALID || old.IsSigned(memory, slot))) {
      std::fill_n(memory.bytes.begin() + record + SIGNATURE_OFFSET, 4, u_int8_t{0});
    }
    if (!has_pointers && old.IsValid(memory, slot)) memory.bytes[record + 3] ^= 0x40;
  }

  Memory Filled(u_int32_t size) {
    Memory memory;
    memory.sector_size = _ground.sector_size;
    memory.bytes = DataVec(size, _dice.OneOf<u_int8_t>({0xFF, 0x00, 0xEE}));
    if (_dice.Chance(50)) memory.bytes = _dice.Bytes(size);
    return memory;
  }

  void Know(const sim::Device& device, const Image& old_image, const Memory& now) {
    if (!_selected.contains(device.node_guid) || _story.burn == BurnKind::GENERIC) return;
    BootRule rule(_story.burn);
    rule.Know(old_image, device, now, BootRule::OLD);
    rule.Know(_story.image, device, now, BootRule::NEW);
    _story.rules.emplace(device.node_guid, std::move(rule));
  }

  /// What docs/fail-safety.md calls not failsafe in a burn of `after` over `before`; empty where
  /// nothing is.
  std::string UnsafeRow(const Image& before, const Image& after, const Held (&held)[2]) const {
    const char* const reaches = "a first image that reaches into the second slot";
    const u_int32_t to = 3 * _ground.sector_size;
    const u_int32_t old_end = _ground.RoundUp(before.slot[0] + before.Extent());
    if (held[0] == Held::VALID && old_end > after.slot[1]) return reaches;
    if (held[1] != Held::VALID) return "";
    if (before.slot[1] >= to + after.SlotBytes()) {
      const u_int32_t new_end = _ground.RoundUp(after.slot[0] + after.Extent());
      if (new_end <= before.slot[1]) return "";
      const bool is_gap = after.Extent() != after.SlotBytes();
      return is_gap ? "a new first image with gaps" : "a new first image behind the fourth sector";
    }
    const u_int32_t moved_end = _ground.RoundUp(to + before.Extent());
    if (moved_end > before.slot[1]) return "moving an image onto itself";
    return moved_end > after.slot[1] ? reaches : "";
  }

  std::string FlashType() {
    return _dice.OneOf<const char*>({"RV52100", "RV52300", "RV52310", "RV52400", "RV52410"});
  }

  // ---- The fabric

  /// Selected ones first.
  GuidVec AddDevices(u_int32_t selected, u_int32_t others) {
    GuidVec nodes;
    const bool is_flash = _story.IsFlash();
    for (u_int32_t i = 0; i < selected + others; ++i) {
      sim::Device device;
      device.node_guid = NewGuid();
      const u_int32_t ports = _dice.Between(1, _most_ports);
      for (u_int32_t port = 0; port < ports; ++port) device.port_guids.push_back(NewGuid());
      device.sys_guid = _dice.Chance(30) ? device.node_guid : NewGuid();
      device.declared_ports = ports;
      device.bsn = _dice.Bytes(sim::BSN_SIZE);
      device.vsd = _dice.Bytes(sim::VSD_SIZE);
      device.kind = is_flash ? sim::MemoryKind::FLASH : sim::MemoryKind::I2C;
      const auto add_chip = [&](u_int8_t address, u_int32_t size) {
        device.chips.try_emplace(
            address, sim::Chip(std::make_unique<sim::Cells>(size), _ground.sector_size));
      };
      if (_ground.map.empty()) add_chip(0, _ground.size);
      for (const Mapped& chip : _ground.map) {
        add_chip(chip.chip, chip.size + (_dice.Chance(30) ? 64 : 0));
      }
      if (!is_flash && _dice.Chance(30)) add_chip(0x70, 64);
      const Guid node = device.node_guid;
      const GuidVec port_guids = device.port_guids;
      _story.fabric.Add(std::move(device));
      nodes.push_back(node);
      if (i >= selected) continue;
      if (i == 0) _first = node;
      _selected.insert(node);
      _story.targets.insert(_dice.Chance(25) ? port_guids[_dice.Below(port_guids.size())] : node);
    }
    if (!is_flash && _dice.Chance(10)) _story.targets.insert(NewGuid());
    _story.server_type = is_flash
                             ? _dice.OneOf<const char*>({"IB", "PCI", "PPC", "I2C"})
                             : _dice.OneOf<const char*>({"I2C", "I2C", "I2C", "IB", "PCI", "PPC"});
    _story.log2_chunk = _ground.log2_chunk;
    sim::ServerFacts& facts = _story.fabric.facts;
    facts.type = _story.server_type;
    facts.multi_max = Text(_dice.Between(selected, selected + _dice.Below(100)));
    if (selected == 1 && _dice.Chance(10)) facts.multi_max = "many";
    facts.ifc_version = _dice.OneOf<const char*>({"2.2", "2.2", "2.20", "2.3", "3", "10.5"});
    return nodes;
  }

  Guid NewGuid() {
    for (;;) {
      const Guid guid = _dice.Chance(50) ? _dice.Seed() : 1 + _dice.Below(0xFFFFFF);
      if (_guids.insert(guid).second) return guid;
    }
  }

  // ---- What must be refused

  /// Spoils the story so that nothing may be written.
  void Forbid() {
    const bool is_flash = _story.IsFlash();
    Image& image = _story.image;
    _story.kind = "refused";
    // A device that is missing must not hide what else is wrong.
    std::erase_if(_story.targets, [&](Guid guid) { return _story.fabric.Find(guid) == nullptr; });
    switch (_dice.Below(9)) {
      case 0:
        image.type = "RV61200";
        _story.refusal = "Device RV0 Rom Interface not supported yet";
        return;
      case 1:
        _story.fabric.facts.ifc_version = _dice.OneOf<const char*>({"2.1", "1", "2.19", "0"});
        _story.refusal = "The required version is 2.2 or above";
        return;
      case 2:
        if (is_flash) {
          _story.targets.insert(NewGuid());
          _story.refusal = "the flash sector size is unknown";
          if (_story.burn == BurnKind::POINTERS) {
            _story.refusal = "The flash sector size is unknown. Can't perform failsafe burn";
          }
          return;
        }
        if (_story.targets.size() > 1) {
          _story.fabric.facts.multi_max = Text(_story.targets.size() - 1);
          _story.refusal = "Multi max violation. Server capability: ";
          return;
        }
        break;
      case 3:
        _story.targets = {NewGuid()};
        _story.refusal = "No more accessible devices";
        return;
      case 4:
        if (_story.burn != BurnKind::GENERIC) {
          image.slot[1] = UNPLACED;
          _story.refusal = "FwImage: Tried to access uninitiated field Image Addr[1]";
          return;
        }
        if (const Section& first = image.sections.front(); first.Size() >= 8) {
          const bool is_field = _dice.Chance(50);
          if (is_field) image.fields.push_back({first.End() - 4, Own::GUID});
          if (!is_field) image.crcs.push_back({first.End() - 8, 12, first.addr});
          _story.refusal = is_field ? "Replace field (from:" : "Replace CRC (from:";
          return;
        }
        break;
      case 5:
        if (_story.burn != BurnKind::POINTERS) break;
        image.ps[1] = _ground.size;
        _story.refusal = "The image has no section at its pointer sector address ";
        return;
      case 6:
        if (_story.burn == BurnKind::GENERIC) break;
        ForgetImages();
        return;
      default:
        break;
    }
    SpoilText();
  }

  void ForgetImages() {
    const Image& image = _story.image;
    const bool has_pointers = _story.burn == BurnKind::POINTERS;
    for (auto& [guid, device] : _story.fabric.Devices()) {
      Memory memory = MemoryOf(device, image);
      for (const u_int32_t slot : {0u, 1u}) {
        if (has_pointers) memory.bytes[image.ps[slot] + SIGNATURE_OFFSET] = 0;
        if (!has_pointers && Oracle(image, _story.burn, device).IsValid(memory, slot)) {
          memory.bytes[image.slot[slot]] ^= 1;
        }
      }
      if (has_pointers && _dice.Chance(50)) memory.bytes[MARKER] = 0;
      Load(device, image, memory);
    }
    _story.refusal =
        has_pointers ? "No more accessible devices" : "All devices can't be failsafe burnt";
  }

  void SpoilText() {
    const Place place = PlaceOf(_story.image, 0);
    const std::string location = Text(std::hex, place.offset, " ", u_int32_t{place.chip});
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
    const auto& row = rows[_dice.Below(std::size(rows))];
    _story.image.spoilt = {row.line};
    _story.refusal = row.reason;
  }

  // ---- The command line

  void WriteSwitches() {
    std::vector<std::string>& words = _story.switches;
    if (_story.log2_chunk != 5 || _dice.Chance(30)) {
      if (_dice.Chance(50)) {
        words.push_back(Text("-m=", _story.log2_chunk));
      } else {
        words.insert(words.end(), {"-m", Text(_story.log2_chunk)});
      }
    }
    std::vector<Guid> guids(_story.targets.begin(), _story.targets.end());
    _dice.Shuffle(guids);
    if (_dice.Chance(10)) guids.push_back(guids.front());
    std::string list;
    for (const Guid guid : guids) {
      list += Text(list.empty() ? "" : ",", _dice.Chance(30) ? "0x" : "", std::hex, guid);
      if (!_dice.Chance(15)) continue;
      words.insert(words.end(), {"-g", list});
      list.clear();
    }
    if (!list.empty()) words.insert(words.end(), {"-g", list});
  }

  /// Of a clean run, about: for the choice of where to disturb it.
  u_int32_t CountRequests() const {
    const u_int32_t chunk = 1u << _story.log2_chunk;
    u_int32_t writes = 0;
    for (const Section& section : _story.image.sections) writes += section.Size() / chunk + 1;
    const auto own = static_cast<u_int32_t>(_story.image.fields.size() + _story.image.crcs.size());
    const auto devices = static_cast<u_int32_t>(_story.targets.size());
    u_int32_t count = writes * (_story.burn == BurnKind::RECORDS ? 2 : 1) + own * devices;
    if (_story.Verifies()) count *= 2;
    return 5 + count + (_story.burn == BurnKind::GENERIC ? 0 : 4);
  }

  Dice _dice;
  Story _story;
  Ground _ground;
  u_int32_t _most_ports = 2;
  Guid _first = 0;
  GuidSet _selected;  ///< nodes
  GuidSet _guids;     ///< all that are taken
};

}  // namespace

Story MakeStory(u_int64_t seed) { return Teller(seed).Tell(); }

}  // namespace soak
