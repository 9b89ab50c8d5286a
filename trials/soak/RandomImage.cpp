#include "trials/soak/RandomImage.h"

#include <algorithm>
#include <numeric>
#include <set>

#include "common/Text.h"
#include "device/Boot.h"
#include "device/Memory.h"

namespace soak {

using common::Text;
using device::Range;
using device::RowOf;

namespace {

std::uint32_t Words(std::uint32_t most, Random& random) {
  return 4 * (1 + random.Below(std::min(most, random.OneOf<std::uint32_t>({4, 16, 60, 250, 600}))));
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
  bool AddSections(std::uint32_t count, std::uint32_t start, std::uint32_t end,
                   std::uint32_t budget) {
    const std::uint32_t sector_size = _layout.sector_size;
    const bool shares_sectors = _layout.IsFlash() && (1u << _layout.log2_chunk) <= sector_size;
    std::uint32_t addr = start;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (i > 0) {
        const std::uint32_t gap = may_have_gaps && _random.Chance(60)
                                      ? _random.Below(_random.OneOf<std::uint32_t>({8, 64, 400}))
                                      : 0;
        if (!_layout.IsFlash()) {
          // An overlap: the section that is written later counts.
          addr = may_have_gaps && addr > 20 && _random.Chance(4) ? addr - 1 - _random.Below(20)
                                                                 : addr + gap;
        } else if (const std::uint32_t next = _layout.RoundUp(addr);
                   !shares_sectors || addr == next || addr + gap >= next || _random.Chance(30)) {
          if (!may_have_gaps && addr != next) break;
          addr = next + (may_have_gaps && _random.Chance(20) ? sector_size : 0);
        } else {
          addr += gap;
        }
      }
      std::uint32_t size = Words(budget / 4 / count + 1, _random);
      if (_layout.HasFewChunks() && _random.Chance(40)) {
        // Up to the end of its last sector.
        const std::uint32_t full = _layout.RoundUp(addr + size) - addr;
        if (full % 4 == 0 && addr + full <= end) size = full;
      }
      if (addr + size > end) return i > 0;
      Section section{Text("S", i, _random.Chance(30) ? "-x" : ""), addr, _random.Bytes(size)};
      if (_random.Chance(15))
        std::ranges::fill(section.data, _random.OneOf<std::uint8_t>({0, 0xFF, 0x5A}));
      if (!IsChunked(addr, size)) return false;
      addr += size;
      _image.sections.push_back(std::move(section));
      OrderSections(_image);
    }
    return true;
  }

  /// Adds fields to sections from index `first` on, none before address `start`; in both slots,
  /// which are `distance` bytes apart, 0 for a single one.
  void AddFields(std::uint32_t count, std::size_t first, std::uint32_t start,
                 std::uint32_t distance) {
    for (std::uint32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const FieldType type = _random.OneOf({FieldType::GUIDS, FieldType::GUID, FieldType::GUID,
                                            FieldType::SYS_GUID, FieldType::SYS_GUID,
                                            FieldType::BSN, FieldType::VSD, FieldType::SIGNATURE});
      if (type == FieldType::GUIDS && !_layout.may_have_guids) continue;
      const std::uint32_t size = RowOf(type).size;
      if (size > SizeOf(section)) continue;
      const std::uint32_t addr = section.addr + _random.Below(SizeOf(section) - size + 1);
      if (addr < start || !Take(addr, size, distance)) continue;
      AddField(addr, type, distance);
    }
  }
  void AddField(std::uint32_t addr, FieldType type, std::uint32_t distance) {
    _image.fields.push_back({type, addr});
    if (distance != 0) _image.fields.push_back({type, addr + distance});
  }

  /// The CRCs cover no byte before `covered`, and lie from `start` on.
  void AddCrcs(std::uint32_t count, std::size_t first, std::uint32_t covered, std::uint32_t start,
               std::uint32_t distance) {
    for (std::uint32_t i = 0; i < count; ++i) {
      const Section& section = PickSection(first);
      const std::uint32_t size = std::min(Words(1000, _random), SizeOf(section));
      const std::uint32_t from = section.addr + _random.Below(SizeOf(section) - size + 1);
      std::uint32_t place = section.addr + _random.Below(SizeOf(section) - 3);
      // A burn writes it even below its section.
      const bool is_below = distance == 0 && !_layout.IsFlash() && _random.Chance(10);
      if (is_below) place = _random.Below(section.addr);
      if (from < covered || place < start || !Take(place, 4, distance)) continue;
      AddCrc({from, size, place}, distance);
    }
  }
  void AddCrc(const CrcField& crc, std::uint32_t distance) {
    _image.crcs.push_back(crc);
    if (distance != 0) {
      _image.crcs.push_back({crc.from + distance, crc.size, crc.addr + distance});
    }
  }

  /// Whether each chunk of such a write lies in one chip.
  bool IsChunked(std::uint64_t addr, std::uint64_t size) const {
    if (addr + size > _layout.size) return false;
    const std::uint64_t chunk = std::uint64_t{1} << _layout.log2_chunk;
    for (std::uint64_t end = addr + size; addr < end;) {
      const std::uint64_t next = std::min(end, (addr / chunk + 1) * chunk);
      if (!IsInOneChip(addr, next - addr)) return false;
      addr = next;
    }
    return true;
  }
  bool IsInOneChip(std::uint64_t addr, std::uint64_t size) const {
    if (_layout.map.empty()) return true;
    std::uint64_t base = 0;
    for (const MappedChip& chip : _layout.map) {
      if (addr >= base && addr + size <= base + chip.size) return true;
      base += chip.size;
    }
    return false;
  }
  void Reserve(const Range& range) { _taken.push_back(range); }

  /// Adds a section that a failsafe burn does not write, before the section of index `before`.
  void AddUnusedSection(std::size_t before, std::uint32_t from, std::uint32_t to) {
    if (from >= to) return;
    std::uint32_t addr = from + _random.Below(to - from);
    // With -n it is burnt.
    if (_layout.IsFlash()) addr = _layout.RoundUp(addr);
    const Section section{"UNUSED", addr, _random.Bytes(Words(10, _random))};
    if (addr != _image.slots[1].image && EndOf(section) <= _layout.ImageEnd()) {
      _image.sections.insert(_image.sections.begin() + static_cast<std::ptrdiff_t>(before),
                             section);
      OrderSections(_image);
    }
  }

  /// Whether no two sections start at one address, and none cuts a field of another one that it
  /// overlaps, in either slot.
  bool IsLegal() const {
    std::set<std::uint32_t> addrs;
    std::vector<Range> ranges;
    for (const Section& section : _image.sections) {
      if (!addrs.insert(section.addr).second) return false;
      ranges.push_back({section.addr, SizeOf(section)});
    }
    if (_image.slots[1].image) {
      const std::uint32_t distance = *_image.slots[1].image - *_image.slots[0].image;
      for (const Section* section : _image.SlotSections()) {
        ranges.push_back({section->addr + distance, SizeOf(*section)});
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
          (!range.Holds(crc.from, crc.size) || crc.addr + 4 > range.addr + range.size)) {
        return false;
      }
    }
    return true;
  }

  const Section& PickSection(std::size_t first) {
    return _image.sections[first + _random.Below(_image.sections.size() - first)];
  }

  /// Reserves a place. A byte of a flash can be reserved once; in an EEPROM the later write counts.
  bool Take(std::uint32_t addr, std::uint32_t size, std::uint32_t distance) {
    const bool may_overlap = !_layout.IsFlash() && _random.Chance(20);
    const std::uint32_t addrs[] = {addr, addr + distance};
    for (const std::uint32_t at : addrs) {
      if (!IsChunked(at, size)) return false;
      const bool is_taken =
          std::ranges::any_of(_taken, [&](const Range& range) { return range.Meets(at, size); });
      if (is_taken && !may_overlap) return false;
    }
    for (const std::uint32_t at : addrs) _taken.push_back({at, size});
    return true;
  }

  const MemoryLayout& _layout;
  Random& _random;
  Image _image;
  std::vector<Range> _taken;
};

/// Size of an image that takes no more than some hundred requests.
std::uint32_t Budget(const MemoryLayout& layout) {
  return std::min(std::uint32_t{6000}, std::uint32_t{80} << layout.log2_chunk);
}

}  // namespace

void RandomImage::SetType(const std::string& keyword) {
  type = keyword;
  image.type = device::FindDeviceType(keyword);
}

Image RandomImage::Loaded() const {
  Image loaded = image;
  if (type == "RV61100" && !type_after_fields) {
    std::erase_if(loaded.fields, [](const Field& field) { return field.type == FieldType::BSN; });
  }
  return loaded;
}

void OrderSections(Image& image) {
  image.order.resize(image.sections.size());
  std::iota(image.order.begin(), image.order.end(), std::size_t{0});
}

std::uint32_t SlotExtent(const Image& image) {
  const std::uint32_t start = *image.slots[0].image;
  std::uint32_t end = start;
  for (const Section* section : image.SlotSections()) end = std::max(end, EndOf(*section));
  return end - start;
}

MemoryLayout MakeFlash(Random& random, std::uint32_t sectors) {
  MemoryLayout layout;
  const std::uint32_t log2_sector = random.Between(9, 12);
  layout.sector_size = 1u << log2_sector;
  layout.log2_chunk = random.Chance(80) ? random.Between(4, log2_sector) : random.Between(4, 15);
  layout.size = layout.sector_size * std::min(sectors, 0x10000u / layout.sector_size);
  return layout;
}

MemoryLayout MakeEeproms(Random& random) {
  MemoryLayout layout;
  layout.log2_chunk = random.Chance(70) ? random.Between(4, 9) : random.Between(4, 15);
  const std::uint32_t chips = random.Chance(15) ? 0 : random.Between(1, 3);
  if (chips == 0) layout.size = 16 * random.Between(0x20, 0x200);
  // A section may go on into the next chip only where chips hold whole chunks.
  const std::uint32_t unit = random.Chance(60) ? std::min(1u << layout.log2_chunk, 0x1000u) : 4;
  std::vector<std::uint8_t> addresses;
  for (std::uint8_t i = 0; i < 8; ++i) addresses.push_back(static_cast<std::uint8_t>(0x50 + i));
  if (random.Chance(20)) addresses[0] = 0;
  random.Shuffle(addresses);
  for (std::uint32_t i = 0; i < chips; ++i) {
    const std::uint32_t size = std::max(unit, random.Between(0x100, 0x1400) / unit * unit);
    layout.map.push_back({addresses[i], size});
    layout.size += size;
  }
  return layout;
}

std::optional<Image> MakeGeneric(const MemoryLayout& layout, Random& random) {
  RandomImageBuilder builder(layout, random);
  const std::uint32_t start =
      layout.IsFlash() ? layout.sector_size * random.Below(layout.size / layout.sector_size / 2)
                       : random.Below(random.OneOf<std::uint32_t>({1, 64, 1000}));
  if (!builder.AddSections(random.Between(1, 8), start, layout.size, Budget(layout))) return {};
  builder.AddFields(random.Below(7), 0, 0, 0);
  builder.AddCrcs(random.Below(6), 0, 0, 0, 0);
  if (!builder.IsLegal()) return {};
  Image& image = builder.Result();
  if (!layout.IsFlash() && random.Chance(25)) random.Shuffle(image.sections);
  OrderSections(image);
  return image;
}

std::vector<Section> MakeInvariant(const MemoryLayout& layout, Random& random) {
  std::vector<Section> sections;
  std::uint32_t addr = 0;
  for (std::uint32_t i = 0; i < random.Between(1, 3) && addr < layout.sector_size; ++i) {
    const std::uint32_t least = i == 0 ? device::FAILSAFE_MARKER + 4 : 4;
    const std::uint32_t left = layout.sector_size - addr;
    if (left < least) break;
    const std::uint32_t size = std::min(least + Words(40, random), left / 4 * 4);
    sections.push_back({Text("BOOT", i), addr, random.Bytes(size)});
    addr += size + random.Below(20);
  }
  device::Bytes& first = sections.front().data;
  const device::Bytes marker = {0xCB, 0x84, 0xCB, 0x84};
  std::ranges::copy(marker, first.begin() + device::FAILSAFE_MARKER);
  return sections;
}

std::optional<Image> MakePointers(const MemoryLayout& layout, const SlotPlaces& slots,
                                  const std::vector<Section>& invariant, Random& random) {
  RandomImageBuilder builder(layout, random);
  Image& image = builder.Result();
  image.sections = invariant;
  for (const std::uint32_t i : {0u, 1u}) {
    image.slots[i].pointer_sector = slots.ps[i];
    image.slots[i].signature = slots.ps[i] + device::RECORD_SIGNATURE;
  }
  std::vector<std::uint32_t> order = {0, 1};
  random.Shuffle(order);
  for (const std::uint32_t i : order) {
    std::uint32_t size =
        std::min(device::POINTER_RECORD_SIZE + (random.Chance(40) ? Words(60, random) : 0),
                 layout.sector_size);
    if (layout.HasFewChunks() && random.Chance(40)) size = layout.sector_size;
    image.sections.push_back({Text("PS", i), slots.ps[i], random.Bytes(size)});
  }
  const std::size_t first = image.sections.size();
  const std::uint32_t start = (random.Chance(85) ? 3 : random.Between(4, 5)) * layout.sector_size;
  builder.may_have_gaps = random.Chance(50);
  if (!builder.AddSections(random.Between(1, 4), start, layout.ImageEnd(), Budget(layout)))
    return {};
  image.slots[0].image = start;
  image.slots[1].image = layout.size;  // so far all sections belong to the first slot
  const std::uint32_t behind = layout.RoundUp(start + SlotExtent(image));
  if (behind > layout.ImageEnd()) return {};
  const std::uint32_t sectors = (layout.ImageEnd() - behind) / layout.sector_size;
  image.slots[1].image = behind + layout.sector_size * random.Below(sectors / 2 + 1);
  if (slots.may_overlap) image.slots[1].image = start + layout.sector_size * random.Between(1, 3);
  if (*image.slots[1].image + SlotExtent(image) > layout.ImageEnd()) return {};
  const std::uint32_t distance = *image.slots[1].image - *image.slots[0].image;

  for (const std::uint32_t i : {0u, 1u}) {
    const auto section = std::ranges::find(image.sections, slots.ps[i], &Section::addr);
    device::Bytes record;
    device::AppendWord(record, *image.slots[i].image);
    device::AppendWord(record, SlotExtent(image));
    device::AppendWord(record, i == 0 ? device::VALID_SIGNATURE : 0xFFFFFFFF);
    std::ranges::copy(record, section->data.begin());
    const std::uint32_t signature = slots.ps[i] + device::RECORD_SIGNATURE;
    builder.Reserve({slots.ps[i], device::RECORD_SIGNATURE + 4});
    builder.Reserve({slots.ps[i] + device::RECORD_CRC, 4});
    image.fields.push_back({FieldType::SIGNATURE, signature});
    const FieldType type =
        random.OneOf({FieldType::GUID, FieldType::SYS_GUID, FieldType::BSN, FieldType::VSD});
    if (random.Chance(40)) image.fields.push_back({type, signature + 4 + random.Below(40)});
    image.crcs.push_back({slots.ps[i], device::RECORD_CRC, slots.ps[i] + device::RECORD_CRC});
  }
  builder.AddFields(random.Below(6), first, 0, distance);
  builder.AddCrcs(random.Below(5), first, 0, 0, distance);
  if (random.Chance(8))
    builder.AddUnusedSection(invariant.size(), *image.slots[1].image + 1, layout.ImageEnd());
  if (!builder.IsLegal()) return {};
  return image;
}

std::optional<Image> MakeRecords(const MemoryLayout& layout, const SlotPlaces& slots,
                                 Random& random) {
  RandomImageBuilder builder(layout, random);
  Image& image = builder.Result();
  for (const std::uint32_t i : {0u, 1u}) image.slots[i].image = slots.slot[i];
  const std::uint32_t distance = slots.slot[1] - slots.slot[0];
  if (!builder.AddSections(random.Between(1, 4), slots.slot[0], slots.slot[1],
                           Budget(layout) / 2)) {
    return {};
  }
  device::Bytes& record = image.sections.front().data;
  if (record.size() < device::BOOT_RECORD_SIZE) return {};
  if (record[7] == 1) record[7] = 2;
  const auto sum = device::BootRecordSum(device::View(record).first(device::BOOT_RECORD_SIZE - 1));
  record[device::BOOT_RECORD_SIZE - 1] = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM - sum);
  for (const Section& section : image.sections) {
    // A section that overlaps the record would invalidate it.
    const bool is_first = section.addr == slots.slot[0];
    if (!is_first && section.addr < slots.slot[0] + device::BOOT_RECORD_SIZE) return {};
    if (!builder.IsChunked(section.addr + distance, SizeOf(section))) return {};
  }
  for (const std::uint32_t slot : slots.slot) {
    if (!builder.IsInOneChip(slot, device::BOOT_RECORD_SIZE)) return {};
    if (!builder.IsChunked(slot, 4)) return {};
  }
  const std::uint32_t behind = slots.slot[0] + device::BOOT_RECORD_SIZE;
  builder.AddFields(random.Below(6), 0, behind, distance);
  builder.AddCrcs(random.Below(5), 0, slots.slot[0] + 4, behind, distance);
  // The burn computes it while the record is spoilt, so it is wrong, as docs/fail-safety.md says.
  if (random.Chance(5) && SizeOf(image.sections.front()) > device::BOOT_RECORD_SIZE + 4) {
    builder.AddCrc({slots.slot[0], 8, behind}, distance);
  }
  if (random.Chance(8)) builder.AddUnusedSection(0, 0, slots.slot[0]);
  // A section at the second slot ends the first one.
  if (random.Chance(5)) image.sections.push_back({"SECOND", slots.slot[1], random.Bytes(8)});
  OrderSections(image);
  if (!builder.IsLegal()) return {};
  return image;
}

}  // namespace soak
