#include "verify/Comparison.h"

#include <algorithm>
#include <array>
#include <set>

#include "device/Burn.h"

namespace verify {

namespace {

constexpr std::size_t MOST_DIFFERENCES = 10;

/// A field or a CRC in a slot: the field's type from 1, or 0 for a CRC; where it starts in the
/// slot; its size; where the CRC is stored, or 0.
using Mark = std::array<std::uint32_t, 4>;

std::multiset<Mark> MarksOf(const device::Image& image, std::uint32_t slot) {
  std::multiset<Mark> marks;
  const std::uint32_t start = image.slots[slot].image.value();
  for (const device::Section* section : image.SlotSections()) {
    const std::uint32_t at = image.AddressInSlot(*section, slot);
    const device::Range range{at, static_cast<std::uint32_t>(section->data.size())};
    for (const device::Field& field : image.fields) {
      if (!range.Holds(field.addr, 1)) continue;
      const auto type = static_cast<std::uint32_t>(field.type) + 1;
      marks.insert({type, field.addr - start, field.Size(), 0});
    }
    for (const device::CrcField& crc : image.crcs) {
      if (range.Holds(crc.from, 1)) marks.insert({0, crc.from - start, crc.size, crc.addr - start});
    }
  }
  return marks;
}

/// Adds the bytes of the regions to `finding`, and those that differ.
void Report(std::span<const ComparedRegion> regions, DeviceFinding& finding) {
  for (const ComparedRegion& region : regions) {
    finding.compared += region.expected.size();
    for (std::uint32_t i = 0; i < region.expected.size(); ++i) {
      const std::uint8_t expected = region.expected[i];
      const std::uint8_t found = region.found[i];
      if (expected == found) continue;
      ++finding.different;
      if (finding.differences.size() >= MOST_DIFFERENCES) continue;
      finding.differences.push_back({region.section->name, i, region.addr + i, expected, found});
    }
  }
}

}  // namespace

void Comparison::JudgeSlots(const device::BootLayout& layout) {
  const std::uint32_t size = layout.RecordSize();
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    const std::uint32_t addr = layout.records[slot];
    if (!_reader.Holds(addr, size)) continue;
    const device::Bytes record = _reader.Read(addr, size);
    const bool boots = device::RecordBoots(layout.kind, slot, record);
    if (boots) _valid.push_back(slot);
    const bool is_signed = layout.HasPointerSectors() && device::RecordIsSigned(record);
    if (boots || is_signed) _marked.push_back(slot);
  }
}

void Comparison::CompareAll(DeviceFinding& finding) {
  std::vector<ComparedRegion> regions;
  for (const device::Section& section : _image.sections) {
    AddSection(regions, section, section.addr);
  }
  ReadInto(regions);
  Expected().PlainBurn(regions);
  Report(regions, finding);
}

void Comparison::CompareSlots(DeviceFinding& finding) {
  if (finding.slots.empty()) return;
  if (_image.Slots() == device::SlotKind::BOOT_RECORDS) {
    CompareBootRecordSlots(finding);
  } else {
    ComparePointerSectorSlots(finding);
  }
}

Expectation Comparison::Expected() {
  if (_reader.IsFlash() && _reader.SectorSize() == 0) {
    throw Unreadable{"the flash has no sector size"};
  }
  return {_image, _reader.SectorSize(),
          [this](device::FieldType type) { return _reader.Field(type); }};
}

void Comparison::CompareBootRecordSlots(DeviceFinding& finding) {
  std::vector<ComparedRegion> regions;
  for (const std::uint32_t slot : finding.slots) AddSlot(regions, _image, slot);
  ReadInto(regions);
  Expected().BootRecordBurn(regions, 0);
  if (const std::size_t different = CountDifferences(regions); different > 0) {
    // Which slot was burnt first depends on which was valid before: take the order that fits
    // better.
    std::vector<device::Bytes> expected;
    expected.reserve(regions.size());
    for (const ComparedRegion& region : regions) expected.push_back(region.expected);
    Expected().BootRecordBurn(regions, 1);
    if (different <= CountDifferences(regions)) {
      for (std::size_t i = 0; i < regions.size(); ++i) {
        regions[i].expected = std::move(expected[i]);
      }
    }
  }
  Report(regions, finding);
  if (finding.different > 0 && MarksOf(_image, 0) != MarksOf(_image, 1)) {
    finding.reason =
        "the image marks fields or CRCs in one slot only: in the other one they hold what other "
        "devices of the same burn have left there";
  }
}

void Comparison::ComparePointerSectorSlots(DeviceFinding& finding) {
  std::vector<ComparedRegion> invariant;
  const device::Burn burn(_image, device::BurnKind::FAILSAFE, device::Burn::FieldValues{});
  for (const std::size_t index : burn.InvariantSections(_reader.SectorSize())) {
    AddSection(invariant, _image.sections[index], _image.sections[index].addr);
  }
  ReadInto(invariant);
  const bool keeps_invariant = std::ranges::all_of(
      invariant, [](const ComparedRegion& region) { return region.found == region.section->data; });
  bool is_reported = false;
  for (const std::uint32_t slot : finding.slots) {
    std::vector<ComparedRegion> regions = invariant;
    const std::uint32_t pointer_sector = _image.slots[slot].pointer_sector.value();
    AddSection(regions, *_image.SectionAt(pointer_sector), pointer_sector);
    AddSlot(regions, _image, slot);
    const auto own = std::span(regions).subspan(invariant.size());
    ReadInto(own);
    Expected().PointerSectorBurn(regions, slot, keeps_invariant);
    Report(is_reported ? own : std::span(regions), finding);  // the invariant sector only once
    is_reported = true;
  }
}

void Comparison::ReadInto(std::span<ComparedRegion> regions) {
  for (ComparedRegion& region : regions) {
    region.found =
        _reader.Read(region.addr, static_cast<std::uint32_t>(region.section->data.size()));
  }
}

}  // namespace verify
