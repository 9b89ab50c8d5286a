#include "trials/soak/RandomImage.h"

#include <algorithm>
#include <numeric>
#include <set>

#include "src/utils.h"
#include "trials/soak/Oracle.h"

namespace soak {

namespace {

constexpr u_int32_t BOOT_RECORD = 16;

u_int32_t Words(u_int32_t most, Random& random) {
  return 4 * (1 + random.Below(std::min(most, random.OneOf<u_int32_t>({4, 16, 60, 250, 600}))));
}

/// Places sections, fields and CRCs where they are legal.
class RandomImageBuilder {
 public:
  RandomImageBuilder(const MemoryLayout& layout, Random& random)
      : _layout(layout), _random(random) {
    _image.map = layout.map;
  }

  /// Adds `count` sections from `start` on, about `budget` bytes in all. No flash sector is erased
  /// twice.
  bool AddSections(u_int32_t count, u_int32_t start, u_int32_t end, u_int32_t budget) {
    const u_int32_t sector_size = _layout.sector_size;
    const bool shares_sectors = _layout.IsFlash() && (1u << _layout.log2_chunk) <= sector_size;
    u_int32_t addr = start;
    for (u_int32_t i = 0; i < count; ++i) {
      if (i > 0) {
        const u_int32_t gap = may_have_gaps && _random.Chance(60)
                                  ? _random.Below(_random.OneOf<u_int32_t>({8, 64, 400}))
                                  : 0;
        if (!_layout.IsFlash()) {
          // An overlap: the section that is written later counts.
          addr = may_have_gaps && addr > 20 && _random.Chance(4) ? addr - 1 - _random.Below(20)
                                                                 : addr + gap;
        } else if (const u_int32_t next = _layout.RoundUp(addr);
                   !shares_sectors || addr == next || addr + gap >= next || _random.Chance(30)) {
          if (!may_have_gaps && addr != next) break;
          addr = next + (may_have_gaps && _random.Chance(20) ? sector_size : 0);
        } else {
          addr += gap;
        }
      }
      const u_int32_t size = Words(budget / 4 / count + 1, _random);
      if (addr + size > end) return i > 0;
      Section section{Text("S", i, _random.Chance(30) ? "-x" : ""), addr, _random.Bytes(size)};
      if (_random.Chance(15))
        std::ranges::fill(section.data, _random.OneOf<u_int8_t>({0, 0xFF, 0x5A}));
      if (!IsChunked(addr, size)) return false;
      addr += size;
      _image.sections.push_back(std::move(section));
    }
    return true;
  }

  /// Adds fields to sections from index `first` on, none before address `start`; in both slots,
  /// which are `distance` bytes apart, 0 for a single one.
  void AddFields(u_int32_t count, std::size_t first, u_int32_t start, u_int32_t distance) {
    for (u_int32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const FieldType type = _random.OneOf({FieldType::GUIDS, FieldType::GUID, FieldType::GUID,
                                            FieldType::SYS_GUID, FieldType::SYS_GUID,
                                            FieldType::BSN, FieldType::VSD, FieldType::SIGNATURE});
      if (type == FieldType::GUIDS && !_layout.may_have_guids) continue;
      const u_int32_t size = RowOf(type).size;
      if (size > section.Size()) continue;
      const u_int32_t addr = section.addr + _random.Below(section.Size() - size + 1);
      if (addr < start || !Take(addr, size, distance)) continue;
      AddField(addr, type, distance);
    }
  }
  void AddField(u_int32_t addr, FieldType type, u_int32_t distance) {
    _image.fields.push_back({addr, type});
    if (distance != 0) _image.fields.push_back({addr + distance, type});
  }

  /// The CRCs cover no byte before `covered`, and lie from `start` on.
  void AddCrcs(u_int32_t count, std::size_t first, u_int32_t covered, u_int32_t start,
               u_int32_t distance) {
    for (u_int32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const u_int32_t size = std::min(Words(1000, _random), section.Size());
      const u_int32_t from = section.addr + _random.Below(section.Size() - size + 1);
      u_int32_t place = section.addr + _random.Below(section.Size() - 3);
      // A burn writes it even below its section.
      const bool is_below = distance == 0 && !_layout.IsFlash() && _random.Chance(10);
      if (is_below) place = _random.Below(section.addr);
      if (from < covered || place < start || !Take(place, 4, distance)) continue;
      AddCrc({from, size, place}, distance);
    }
  }
  void AddCrc(const CrcField& crc, u_int32_t distance) {
    _image.crcs.push_back(crc);
    if (distance != 0) {
      _image.crcs.push_back({crc.from + distance, crc.size, crc.place + distance});
    }
  }

  /// Whether each chunk of such a write lies in one chip.
  bool IsChunked(u_int64_t addr, u_int64_t size) const {
    if (addr + size > _layout.size) return false;
    const u_int64_t chunk = u_int64_t{1} << _layout.log2_chunk;
    for (u_int64_t end = addr + size; addr < end;) {
      const u_int64_t next = std::min(end, (addr / chunk + 1) * chunk);
      if (!IsInOneChip(addr, next - addr)) return false;
      addr = next;
    }
    return true;
  }
  bool IsInOneChip(u_int64_t addr, u_int64_t size) const {
    if (_layout.map.empty()) return true;
    u_int64_t base = 0;
    for (const MappedChip& chip : _layout.map) {
      if (addr >= base && addr + size <= base + chip.size) return true;
      base += chip.size;
    }
    return false;
  }
  void Reserve(const Range& range) { _taken.push_back(range); }

  /// Adds a section that a failsafe burn does not write, before the section of index `before`.
  void AddUnusedSection(std::size_t before, u_int32_t from, u_int32_t to) {
    if (from >= to) return;
    u_int32_t addr = from + _random.Below(to - from);
    // With -n it is burnt.
    if (_layout.IsFlash()) addr = _layout.RoundUp(addr);
    const Section section{"UNUSED", addr, _random.Bytes(Words(10, _random))};
    if (addr != _image.slot[1] && section.End() <= _layout.ImageEnd()) {
      _image.sections.insert(_image.sections.begin() + static_cast<std::ptrdiff_t>(before),
                             section);
    }
  }

  /// Whether no two sections start at one address, and none cuts a field of another one that it
  /// overlaps, in either slot.
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
  Image& Result() { return _image; }

 private:
  bool CutsNothing(const Range& range) const {
    for (const Field& field : _image.fields) {
      if (range.Holds(field.addr, 1) && !range.Holds(field.addr, field.Size())) return false;
    }
    for (const CrcField& crc : _image.crcs) {
      if (range.Holds(crc.from, 1) &&
          (!range.Holds(crc.from, crc.size) || crc.place + 4 > range.addr + range.size)) {
        return false;
      }
    }
    return true;
  }

  const Section& PickSection(std::size_t first) {
    return _image.sections[first + _random.Below(_image.sections.size() - first)];
  }

  /// Reserves a place. A byte of a flash can be reserved once; in an EEPROM the later write counts.
  bool Take(u_int32_t addr, u_int32_t size, u_int32_t distance) {
    const bool may_overlap = !_layout.IsFlash() && _random.Chance(20);
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

  const MemoryLayout& _layout;
  Random& _random;
  Image _image;
  std::vector<Range> _taken;
};

/// Size of an image that takes no more than some hundred requests.
u_int32_t Budget(const MemoryLayout& layout) {
  return std::min(u_int32_t{6000}, u_int32_t{80} << layout.log2_chunk);
}

}  // namespace

MemoryLayout MakeFlash(Random& random, u_int32_t sectors) {
  MemoryLayout layout;
  const u_int32_t log2_sector = random.Between(9, 12);
  layout.sector_size = 1u << log2_sector;
  layout.log2_chunk = random.Chance(80) ? random.Between(4, log2_sector) : random.Between(4, 15);
  layout.size = layout.sector_size * std::min(sectors, 0x10000u / layout.sector_size);
  return layout;
}

MemoryLayout MakeEeproms(Random& random) {
  MemoryLayout layout;
  layout.log2_chunk = random.Chance(70) ? random.Between(4, 9) : random.Between(4, 15);
  const u_int32_t chips = random.Chance(15) ? 0 : random.Between(1, 3);
  if (chips == 0) layout.size = 16 * random.Between(0x20, 0x200);
  // A section may go on into the next chip only where chips hold whole chunks.
  const u_int32_t unit = random.Chance(60) ? std::min(1u << layout.log2_chunk, 0x1000u) : 4;
  std::vector<u_int8_t> addresses;
  for (u_int8_t i = 0; i < 8; ++i) addresses.push_back(static_cast<u_int8_t>(0x50 + i));
  if (random.Chance(20)) addresses[0] = 0;
  random.Shuffle(addresses);
  for (u_int32_t i = 0; i < chips; ++i) {
    const u_int32_t size = std::max(unit, random.Between(0x100, 0x1400) / unit * unit);
    layout.map.push_back({size, addresses[i]});
    layout.size += size;
  }
  return layout;
}

std::optional<Image> MakeGeneric(const MemoryLayout& layout, Random& random) {
  RandomImageBuilder builder(layout, random);
  const u_int32_t start =
      layout.IsFlash() ? layout.sector_size * random.Below(layout.size / layout.sector_size / 2)
                       : random.Below(random.OneOf<u_int32_t>({1, 64, 1000}));
  if (!builder.AddSections(random.Between(1, 8), start, layout.size, Budget(layout))) return {};
  builder.AddFields(random.Below(7), 0, 0, 0);
  builder.AddCrcs(random.Below(6), 0, 0, 0, 0);
  if (!builder.IsLegal()) return {};
  Image& image = builder.Result();
  if (!layout.IsFlash() && random.Chance(25)) random.Shuffle(image.sections);
  return image;
}

std::vector<Section> MakeInvariant(const MemoryLayout& layout, Random& random) {
  std::vector<Section> sections;
  u_int32_t addr = 0;
  for (u_int32_t i = 0; i < random.Between(1, 3) && addr < layout.sector_size; ++i) {
    const u_int32_t least = i == 0 ? MARKER + 4 : 4;
    const u_int32_t left = layout.sector_size - addr;
    if (left < least) break;
    const u_int32_t size = std::min(least + Words(40, random), left / 4 * 4);
    sections.push_back({Text("BOOT", i), addr, random.Bytes(size)});
    addr += size + random.Below(20);
  }
  DataVec& first = sections.front().data;
  const DataVec marker = {0xCB, 0x84, 0xCB, 0x84};
  std::ranges::copy(marker, first.begin() + MARKER);
  return sections;
}

std::optional<Image> MakePointers(const MemoryLayout& layout, const Slots& slots,
                                  const std::vector<Section>& invariant, Random& random) {
  RandomImageBuilder builder(layout, random);
  Image& image = builder.Result();
  image.sections = invariant;
  std::ranges::copy(slots.ps, image.ps);
  std::vector<u_int32_t> order = {0, 1};
  random.Shuffle(order);
  for (const u_int32_t i : order) {
    const u_int32_t size =
        std::min(RECORD_SIZE + (random.Chance(40) ? Words(60, random) : 0), layout.sector_size);
    image.sections.push_back({Text("PS", i), image.ps[i], random.Bytes(size)});
  }
  const std::size_t first = image.sections.size();
  const u_int32_t start = (random.Chance(85) ? 3 : random.Between(4, 5)) * layout.sector_size;
  builder.may_have_gaps = random.Chance(50);
  if (!builder.AddSections(random.Between(1, 4), start, layout.ImageEnd(), Budget(layout)))
    return {};
  image.slot[0] = start;
  const u_int32_t behind = layout.RoundUp(start + image.Extent());
  if (behind > layout.ImageEnd()) return {};
  const u_int32_t sectors = (layout.ImageEnd() - behind) / layout.sector_size;
  image.slot[1] = behind + layout.sector_size * random.Below(sectors / 2 + 1);
  if (slots.may_overlap) image.slot[1] = start + layout.sector_size * random.Between(1, 3);
  if (image.slot[1] + image.Extent() > layout.ImageEnd()) return {};
  const u_int32_t distance = image.slot[1] - image.slot[0];

  for (const u_int32_t i : {0u, 1u}) {
    const auto section = std::ranges::find(image.sections, image.ps[i], &Section::addr);
    DataVec record;
    record << image.slot[i] << image.Extent() << (i == 0 ? 0xCB84CB84 : 0xFFFFFFFF);
    std::ranges::copy(record, section->data.begin());
    const u_int32_t signature = image.ps[i] + SIGNATURE_OFFSET;
    builder.Reserve({image.ps[i], SIGNATURE_OFFSET + 4});
    builder.Reserve({image.ps[i] + CRC_OFFSET, 4});
    image.fields.push_back({signature, FieldType::SIGNATURE});
    const FieldType type =
        random.OneOf({FieldType::GUID, FieldType::SYS_GUID, FieldType::BSN, FieldType::VSD});
    if (random.Chance(40)) image.fields.push_back({signature + 4 + random.Below(40), type});
    image.crcs.push_back({image.ps[i], CRC_OFFSET, image.ps[i] + CRC_OFFSET});
  }
  builder.AddFields(random.Below(6), first, 0, distance);
  builder.AddCrcs(random.Below(5), first, 0, 0, distance);
  if (random.Chance(8))
    builder.AddUnusedSection(invariant.size(), image.slot[1] + 1, layout.ImageEnd());
  if (!builder.IsLegal()) return {};
  return image;
}

std::optional<Image> MakeRecords(const MemoryLayout& layout, const Slots& slots, Random& random) {
  RandomImageBuilder builder(layout, random);
  Image& image = builder.Result();
  std::ranges::copy(slots.slot, image.slot);
  const u_int32_t distance = image.slot[1] - image.slot[0];
  if (!builder.AddSections(random.Between(1, 4), image.slot[0], image.slot[1],
                           Budget(layout) / 2)) {
    return {};
  }
  DataVec& record = image.sections.front().data;
  if (record.size() < BOOT_RECORD) return {};
  if (record[7] == 1) record[7] = 2;
  const auto sum = std::accumulate(record.begin(), record.begin() + BOOT_RECORD - 1, u_int32_t{0});
  record[BOOT_RECORD - 1] = static_cast<u_int8_t>(0xAB - sum);
  for (const Section& section : image.sections) {
    // A section that overlaps the record would invalidate it.
    const bool is_first = section.addr == image.slot[0];
    if (!is_first && section.addr < image.slot[0] + BOOT_RECORD) return {};
    if (!builder.IsChunked(section.addr + distance, section.Size())) return {};
  }
  for (const u_int32_t slot : image.slot) {
    if (!builder.IsInOneChip(slot, BOOT_RECORD)) return {};
    if (!builder.IsChunked(slot, 4)) return {};
  }
  const u_int32_t behind = image.slot[0] + BOOT_RECORD;
  builder.AddFields(random.Below(6), 0, behind, distance);
  builder.AddCrcs(random.Below(5), 0, image.slot[0] + 4, behind, distance);
  // The burn computes it while the record is spoilt, so it is wrong, as docs/fail-safety.md says.
  if (random.Chance(5) && image.sections.front().Size() > BOOT_RECORD + 4) {
    builder.AddCrc({image.slot[0], 8, behind}, distance);
  }
  if (random.Chance(8)) builder.AddUnusedSection(0, 0, image.slot[0]);
  // A section at the second slot ends the first one.
  if (random.Chance(5)) image.sections.push_back({"SECOND", image.slot[1], random.Bytes(8)});
  if (!builder.IsLegal()) return {};
  return image;
}

}  // namespace soak
