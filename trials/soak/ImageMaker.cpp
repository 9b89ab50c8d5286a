#include "trials/soak/ImageMaker.h"

#include <algorithm>
#include <numeric>
#include <set>

#include "src/utils.h"
#include "trials/soak/Oracle.h"

namespace soak {

namespace {

constexpr u_int32_t BOOT_RECORD = 16;

u_int32_t Words(u_int32_t most, Dice& dice) {
  return 4 * (1 + dice.Below(std::min(most, dice.OneOf<u_int32_t>({4, 16, 60, 250, 600}))));
}

/// Puts sections, fields and CRCs where they are legal.
class Maker {
 public:
  Maker(const Ground& ground, Dice& dice) : _ground(ground), _dice(dice) {
    _image.map = ground.map;
  }

  /// So many sections from `start` on, about `budget` bytes; sectors are erased once.
  bool AddSections(u_int32_t count, u_int32_t start, u_int32_t end, u_int32_t budget) {
    const u_int32_t sector_size = _ground.sector_size;
    const bool shares_sectors = _ground.IsFlash() && (1u << _ground.log2_chunk) <= sector_size;
    u_int32_t addr = start;
    for (u_int32_t i = 0; i < count; ++i) {
      if (i > 0) {
        const u_int32_t gap = may_have_gaps && _dice.Chance(60)
                                  ? _dice.Below(_dice.OneOf<u_int32_t>({8, 64, 400}))
                                  : 0;
        if (!_ground.IsFlash()) {
          // The later one counts.
          addr = may_have_gaps && addr > 20 && _dice.Chance(4) ? addr - 1 - _dice.Below(20)
                                                               : addr + gap;
        } else if (const u_int32_t next = _ground.RoundUp(addr);
                   !shares_sectors || addr == next || addr + gap >= next || _dice.Chance(30)) {
          if (!may_have_gaps && addr != next) break;
          addr = next + (may_have_gaps && _dice.Chance(20) ? sector_size : 0);
        } else {
          addr += gap;
        }
      }
      const u_int32_t size = Words(budget / 4 / count + 1, _dice);
      if (addr + size > end) return i > 0;
      Section section{Text("S", i, _dice.Chance(30) ? "-x" : ""), addr, _dice.Bytes(size)};
      if (_dice.Chance(15)) std::ranges::fill(section.data, _dice.OneOf<u_int8_t>({0, 0xFF, 0x5A}));
      if (!IsChunked(addr, size)) return false;
      addr += size;
      _image.sections.push_back(std::move(section));
    }
    return true;
  }

  /// In sections from `first` on, not before `start` of them; in both slots, `distance` apart.
  void AddFields(u_int32_t count, std::size_t first, u_int32_t start, u_int32_t distance) {
    for (u_int32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const Own own = _dice.OneOf({Own::GUIDS, Own::GUID, Own::GUID, Own::SYSGUID, Own::SYSGUID,
                                   Own::BSN, Own::VSD, Own::SIGNATURE});
      if (own == Own::GUIDS && !_ground.may_have_guids) continue;
      const u_int32_t size = RowOf(own).size;
      if (size > section.Size()) continue;
      const u_int32_t addr = section.addr + _dice.Below(section.Size() - size + 1);
      if (addr < start || !Take(addr, size, distance)) continue;
      AddField(addr, own, distance);
    }
  }
  void AddField(u_int32_t addr, Own own, u_int32_t distance) {
    _image.fields.push_back({addr, own});
    if (distance != 0) _image.fields.push_back({addr + distance, own});
  }

  /// They cover nothing before `covered`, and lie behind `start`.
  void AddCrcs(u_int32_t count, std::size_t first, u_int32_t covered, u_int32_t start,
               u_int32_t distance) {
    for (u_int32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const u_int32_t size = std::min(Words(1000, _dice), section.Size());
      const u_int32_t from = section.addr + _dice.Below(section.Size() - size + 1);
      u_int32_t place = section.addr + _dice.Below(section.Size() - 3);
      // Below its section: written, too.
      const bool is_below = distance == 0 && !_ground.IsFlash() && _dice.Chance(10);
      if (is_below) place = _dice.Below(section.addr);
      if (from < covered || place < start || !Take(place, 4, distance)) continue;
      AddCrc({from, size, place}, distance);
    }
  }
  void AddCrc(const Crc& crc, u_int32_t distance) {
    _image.crcs.push_back(crc);
    if (distance != 0) {
      _image.crcs.push_back({crc.from + distance, crc.size, crc.place + distance});
    }
  }

  /// Whether a write there is cut into pieces that each lie in one chip.
  bool IsChunked(u_int64_t addr, u_int64_t size) const {
    if (addr + size > _ground.size) return false;
    const u_int64_t chunk = u_int64_t{1} << _ground.log2_chunk;
    for (u_int64_t end = addr + size; addr < end;) {
      const u_int64_t next = std::min(end, (addr / chunk + 1) * chunk);
      if (!IsInOneChip(addr, next - addr)) return false;
      addr = next;
    }
    return true;
  }
  bool IsInOneChip(u_int64_t addr, u_int64_t size) const {
    if (_ground.map.empty()) return true;
    u_int64_t base = 0;
    for (const Mapped& chip : _ground.map) {
      if (addr >= base && addr + size <= base + chip.size) return true;
      base += chip.size;
    }
    return false;
  }
  void Reserve(const Range& range) { _taken.push_back(range); }

  /// A section that a failsafe burn leaves alone, before the section `before` of the file.
  void AddBystander(std::size_t before, u_int32_t from, u_int32_t to) {
    if (from >= to) return;
    u_int32_t addr = from + _dice.Below(to - from);
    // With -n it is burnt, too.
    if (_ground.IsFlash()) addr = _ground.RoundUp(addr);
    const Section section{"BYSTANDER", addr, _dice.Bytes(Words(10, _dice))};
    if (addr != _image.slot[1] && section.End() <= _ground.ImageEnd()) {
      _image.sections.insert(_image.sections.begin() + static_cast<std::ptrdiff_t>(before),
                             section);
    }
  }

  /// Sections that overlap can cut a field of another one, also where they are moved to, and no two
  /// may start at one address.
  bool IsLegal() const {
    std::set<u_int32_t> addrs;
    std::vector<Range> ranges;
    for (const Section& section : _image.sections) {
      if (!addrs.insert(section.addr).second) return false;
      ranges.push_back({section.addr, section.Size()});
    }
    if (_image.slot[1] != UNPLACED) {
      const u_int32_t distance = _image.slot[1] - _image.slot[0];
      for (const Section* section : _image.SlotSections()) {
        ranges.push_back({section->addr + distance, section->Size()});
      }
    }
    return std::ranges::all_of(ranges, [this](const Range& range) { return CutsNothing(range); });
  }

  bool may_have_gaps = true;
  Image& Made() { return _image; }

 private:
  bool CutsNothing(const Range& range) const {
    for (const Field& field : _image.fields) {
      if (range.Holds(field.addr, 1) && !range.Holds(field.addr, field.Size())) return false;
    }
    for (const Crc& crc : _image.crcs) {
      if (range.Holds(crc.from, 1) &&
          (!range.Holds(crc.from, crc.size) || crc.place + 4 > range.addr + range.size)) {
        return false;
      }
    }
    return true;
  }

  const Section& PickSection(std::size_t first) {
    return _image.sections[first + _dice.Below(_image.sections.size() - first)];
  }

  /// A flash takes each place once; in an EEPROM what is written later counts.
  bool Take(u_int32_t addr, u_int32_t size, u_int32_t distance) {
    const bool may_overlap = !_ground.IsFlash() && _dice.Chance(20);
    const u_int32_t addrs[] = {addr, addr + distance};
    for (const u_int32_t at : addrs) {
      if (!IsChunked(at, size)) return false;
      const bool is_taken =
          std::ranges::any_of(_taken, [&](const Range& range) { return range.Meets(at, size); });
      if (is_taken && !may_overlap) return false;
    }
    for (const u_int32_t at : addrs) _taken.push_back({at, size});
    return true;
  }

  const Ground& _ground;
  Dice& _dice;
  Image _image;
  std::vector<Range> _taken;
};

/// Bytes that take no more than some hundred requests.
u_int32_t Budget(const Ground& ground) {
  return std::min(u_int32_t{6000}, u_int32_t{80} << ground.log2_chunk);
}

}  // namespace

Ground MakeFlash(Dice& dice, u_int32_t sectors) {
  Ground ground;
  const u_int32_t log2_sector = dice.Between(9, 12);
  ground.sector_size = 1u << log2_sector;
  ground.log2_chunk = dice.Chance(80) ? dice.Between(4, log2_sector) : dice.Between(4, 15);
  ground.size = ground.sector_size * std::min(sectors, 0x10000u / ground.sector_size);
  return ground;
}

Ground MakeEeproms(Dice& dice) {
  Ground ground;
  ground.log2_chunk = dice.Chance(70) ? dice.Between(4, 9) : dice.Between(4, 15);
  const u_int32_t chips = dice.Chance(15) ? 0 : dice.Between(1, 3);
  if (chips == 0) ground.size = 16 * dice.Between(0x20, 0x200);
  // Of such chips a section may go on into the next one.
  const u_int32_t unit = dice.Chance(60) ? std::min(1u << ground.log2_chunk, 0x1000u) : 4;
  std::vector<u_int8_t> addresses;
  for (u_int8_t i = 0; i < 8; ++i) addresses.push_back(static_cast<u_int8_t>(0x50 + i));
  if (dice.Chance(20)) addresses[0] = 0;
  dice.Shuffle(addresses);
  for (u_int32_t i = 0; i < chips; ++i) {
    const u_int32_t size = std::max(unit, dice.Between(0x100, 0x1400) / unit * unit);
    ground.map.push_back({size, addresses[i]});
    ground.size += size;
  }
  return ground;
}

std::optional<Image> MakeGeneric(const Ground& ground, Dice& dice) {
  Maker maker(ground, dice);
  const u_int32_t start =
      ground.IsFlash() ? ground.sector_size * dice.Below(ground.size / ground.sector_size / 2)
                       : dice.Below(dice.OneOf<u_int32_t>({1, 64, 1000}));
  if (!maker.AddSections(dice.Between(1, 8), start, ground.size, Budget(ground))) return {};
  maker.AddFields(dice.Below(7), 0, 0, 0);
  maker.AddCrcs(dice.Below(6), 0, 0, 0, 0);
  if (!maker.IsLegal()) return {};
  Image& image = maker.Made();
  if (!ground.IsFlash() && dice.Chance(25)) dice.Shuffle(image.sections);
  return image;
}

std::vector<Section> MakeInvariant(const Ground& ground, Dice& dice) {
  std::vector<Section> sections;
  u_int32_t addr = 0;
  for (u_int32_t i = 0; i < dice.Between(1, 3) && addr < ground.sector_size; ++i) {
    const u_int32_t least = i == 0 ? MARKER + 4 : 4;
    const u_int32_t left = ground.sector_size - addr;
    if (left < least) break;
    const u_int32_t size = std::min(least + Words(40, dice), left / 4 * 4);
    sections.push_back({Text("BOOT", i), addr, dice.Bytes(size)});
    addr += size + dice.Below(20);
  }
  DataVec& first = sections.front().data;
  const DataVec marker = {0xCB, 0x84, 0xCB, 0x84};
  std::ranges::copy(marker, first.begin() + MARKER);
  return sections;
}

std::optional<Image> MakePointers(const Ground& ground, const Slots& slots,
                                  const std::vector<Section>& invariant, Dice& dice) {
  Maker maker(ground, dice);
  Image& image = maker.Made();
  image.sections = invariant;
  std::ranges::copy(slots.ps, image.ps);
  std::vector<u_int32_t> order = {0, 1};
  dice.Shuffle(order);
  for (const u_int32_t i : order) {
    const u_int32_t size =
        std::min(RECORD_SIZE + (dice.Chance(40) ? Words(60, dice) : 0), ground.sector_size);
    image.sections.push_back({Text("PS", i), image.ps[i], dice.Bytes(size)});
  }
  const std::size_t first = image.sections.size();
  const u_int32_t start = (dice.Chance(85) ? 3 : dice.Between(4, 5)) * ground.sector_size;
  maker.may_have_gaps = dice.Chance(50);
  if (!maker.AddSections(dice.Between(1, 4), start, ground.ImageEnd(), Budget(ground))) return {};
  image.slot[0] = start;
  const u_int32_t behind = ground.RoundUp(start + image.Extent());
  if (behind > ground.ImageEnd()) return {};
  const u_int32_t sectors = (ground.ImageEnd() - behind) / ground.sector_size;
  image.slot[1] = behind + ground.sector_size * dice.Below(sectors / 2 + 1);
  if (slots.may_overlap) image.slot[1] = start + ground.sector_size * dice.Between(1, 3);
  if (image.slot[1] + image.Extent() > ground.ImageEnd()) return {};
  const u_int32_t distance = image.slot[1] - image.slot[0];

  for (const u_int32_t i : {0u, 1u}) {
    const auto section = std::ranges::find(image.sections, image.ps[i], &Section::addr);
    DataVec record;
    record << image.slot[i] << image.Extent() << (i == 0 ? 0xCB84CB84 : 0xFFFFFFFF);
    std::ranges::copy(record, section->data.begin());
    const u_int32_t signature = image.ps[i] + SIGNATURE_OFFSET;
    maker.Reserve({image.ps[i], SIGNATURE_OFFSET + 4});
    maker.Reserve({image.ps[i] + CRC_OFFSET, 4});
    image.fields.push_back({signature, Own::SIGNATURE});
    const Own own = dice.OneOf({Own::GUID, Own::SYSGUID, Own::BSN, Own::VSD});
    if (dice.Chance(40)) image.fields.push_back({signature + 4 + dice.Below(40), own});
    image.crcs.push_back({image.ps[i], CRC_OFFSET, image.ps[i] + CRC_OFFSET});
  }
  maker.AddFields(dice.Below(6), first, 0, distance);
  maker.AddCrcs(dice.Below(5), first, 0, 0, distance);
  if (dice.Chance(8)) maker.AddBystander(invariant.size(), image.slot[1] + 1, ground.ImageEnd());
  if (!maker.IsLegal()) return {};
  return image;
}

std::optional<Image> MakeRecords(const Ground& ground, const Slots& slots, Dice& dice) {
  Maker maker(ground, dice);
  Image& image = maker.Made();
  std::ranges::copy(slots.slot, image.slot);
  const u_int32_t distance = image.slot[1] - image.slot[0];
  if (!maker.AddSections(dice.Between(1, 4), image.slot[0], image.slot[1], Budget(ground) / 2)) {
    return {};
  }
  DataVec& record = image.sections.front().data;
  if (record.size() < BOOT_RECORD) return {};
  if (record[7] == 1) record[7] = 2;
  const auto sum = std::accumulate(record.begin(), record.begin() + BOOT_RECORD - 1, u_int32_t{0});
  record[BOOT_RECORD - 1] = static_cast<u_int8_t>(0xAB - sum);
  for (const Section& section : image.sections) {
    // What overlaps the record would spoil it.
    const bool is_first = section.addr == image.slot[0];
    if (!is_first && section.addr < image.slot[0] + BOOT_RECORD) return {};
    if (!maker.IsChunked(section.addr + distance, section.Size())) return {};
  }
  for (const u_int32_t slot : image.slot) {
    if (!maker.IsInOneChip(slot, BOOT_RECORD)) return {};
    if (!maker.IsChunked(slot, 4)) return {};
  }
  const u_int32_t behind = image.slot[0] + BOOT_RECORD;
  maker.AddFields(dice.Below(6), 0, behind, distance);
  maker.AddCrcs(dice.Below(5), 0, image.slot[0] + 4, behind, distance);
  // Computed while the record is spoilt: wrong for the boot code, as users are told.
  if (dice.Chance(5) && image.sections.front().Size() > BOOT_RECORD + 4) {
    maker.AddCrc({image.slot[0], 8, behind}, distance);
  }
  if (dice.Chance(8)) maker.AddBystander(0, 0, image.slot[0]);
  // From here on it is no part of the first slot.
  if (dice.Chance(5)) image.sections.push_back({"SECOND", image.slot[1], dice.Bytes(8)});
  if (!maker.IsLegal()) return {};
  return image;
}

}  // namespace soak
