#include "verify/Comparison.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include "common/Text.h"
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

}  // namespace

std::vector<DeviceFinding> Comparison::Compare(const std::vector<device::Guid>& guids) {
  _guids = guids;
  _devices.resize(guids.size());
  for (std::size_t i = 0; i < guids.size(); ++i) _devices[i].finding.guid = guids[i];
  if (_task.HasPointerSectors()) {
    const device::Burn burn(_task.image, device::BurnKind::PLAIN, device::Burn::FieldValues{});
    for (const std::size_t index : burn.InvariantSections(_reader.SectorSize())) {
      _invariant.push_back(&_task.image.sections[index]);
    }
    // They tell which slots are compared.
    ReadRecords(guids);
  }
  for (Device& device : _devices) {
    DeviceFinding& finding = device.finding;
    if (_reader.IsDropped(finding.guid)) continue;
    if (!_invariant.empty()) finding.invariant_sector = InvariantSector::NOT_COMPARED;
    if (!_task.ComparesSlots()) continue;
    if (_task.choice != SlotChoice::AUTO) {
      finding.slots = {_task.choice == SlotChoice::FIRST ? 0u : 1u};
    } else if (_task.HasPointerSectors()) {
      finding.slots = device.marked;
    } else {
      finding.slots = {0, 1};
    }
  }
  const std::vector<Pass> passes = Passes();
  if (_task.layout && !_task.HasPointerSectors()) {
    _takes_records_from_regions = HoldRecords(passes);
    if (!_takes_records_from_regions) ReadRecords(guids);
  }
  if (_reader.IsFlash() && _reader.SectorSize() == 0 && !passes.empty()) {
    GiveUp(guids, "the flash has no sector size");
  }
  std::size_t wanted = 0;
  for (const Pass& pass : passes) {
    for (const ComparedRegion& region : pass.Compared()) {
      const std::size_t size = region.section->data.size();
      if (!_reader.Holds(region.addr, size)) {
        GiveUp(guids, "the image reaches past the device's memory");
      }
      wanted += size;
    }
  }
  _total = wanted * guids.size();
  for (const Pass& pass : passes) {
    Predict(pass);
    ReadAndCompare(pass);
  }
  std::vector<DeviceFinding> findings;
  for (Device& device : _devices) {
    if (_takes_records_from_regions) JudgeSlots(device);
    Conclude(device, wanted);
    findings.push_back(std::move(device.finding));
  }
  return findings;
}

// ---- What is compared

std::size_t Comparison::Ways() const { return _task.ComparesSlots() ? MOST_WAYS : 1; }

/// All devices of a group have the same: a flash is alone in its group.
std::vector<Comparison::Pass> Comparison::Passes() const {
  if (_task.ComparesSlots() && _task.HasPointerSectors()) return PointerSectorPasses();
  Pass pass;
  if (_task.ComparesSlots()) {
    const bool is_both = _task.choice == SlotChoice::AUTO;
    if (is_both || _task.choice == SlotChoice::FIRST) AddSlot(pass.regions, _task.image, 0);
    if (is_both || _task.choice == SlotChoice::SECOND) AddSlot(pass.regions, _task.image, 1);
  } else {
    for (const device::Section& section : _task.image.sections) {
      AddSection(pass.regions, section, section.addr);
    }
  }
  return {pass};
}

std::vector<Comparison::Pass> Comparison::PointerSectorPasses() const {
  std::vector<Pass> passes;
  for (const std::uint32_t slot : _devices.front().finding.slots) {
    Pass pass{.regions = {}, .slot = slot};
    for (const device::Section* section : _invariant) {
      AddSection(pass.regions, *section, section->addr);
    }
    if (!passes.empty()) pass.first = pass.regions.size();  // the invariant sector only once
    const std::uint32_t pointer_sector = _task.image.slots[slot].pointer_sector.value();
    AddSection(pass.regions, *_task.image.SectionAt(pointer_sector), pointer_sector);
    AddSlot(pass.regions, _task.image, slot);
    passes.push_back(std::move(pass));
  }
  return passes;
}

bool Comparison::IsInvariant(const device::Section& section) const {
  return std::ranges::find(_invariant, &section) != _invariant.end();
}

// ---- Boot records

/// Whether the records that devices hold are read with what is compared.
bool Comparison::HoldRecords(const std::vector<Pass>& passes) const {
  const std::uint32_t size = _task.layout->RecordSize();
  return std::ranges::all_of(_task.layout->records, [&](std::uint32_t addr) {
    const auto holds = [&](const ComparedRegion& region) {
      return region.addr <= addr && addr + std::uint64_t{size} <= region.End();
    };
    return !_reader.Holds(addr, size) || std::ranges::any_of(passes.front().regions, holds);
  });
}

void Comparison::ReadRecords(const std::vector<device::Guid>& guids) {
  const std::uint32_t size = _task.layout->RecordSize();
  for (const device::Guid guid : guids) Of(guid).records = {};
  for (const std::uint32_t addr : _task.layout->records) {
    if (!_reader.Holds(addr, size)) continue;
    _reader.Read(guids, addr, size,
                 [this](device::Guid guid, std::uint32_t at, std::span<const std::uint8_t> bytes) {
                   TakeRecords(at, bytes, Of(guid));
                 });
  }
  for (const device::Guid guid : guids) JudgeSlots(Of(guid));
}

/// Regions may overlap: each byte of a record is taken once.
void Comparison::TakeRecords(std::uint32_t at, std::span<const std::uint8_t> bytes,
                             Device& device) const {
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    device::Bytes& record = device.records[slot];
    const std::uint64_t next = _task.layout->records[slot] + std::uint64_t{record.size()};
    const std::size_t left = _task.layout->RecordSize() - record.size();
    if (next < at || next >= at + bytes.size()) continue;
    const auto rest = bytes.subspan(static_cast<std::size_t>(next - at));
    const auto piece = rest.first(std::min(left, rest.size()));
    record.insert(record.end(), piece.begin(), piece.end());
  }
}

/// Does nothing where a record is missing.
void Comparison::JudgeSlots(Device& device) const {
  const device::BootLayout& layout = *_task.layout;
  DeviceFinding& finding = device.finding;
  finding.valid_slots.clear();
  device.marked.clear();
  if (!_reader.IsListed(finding.guid)) return;
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    const device::Bytes& record = device.records[slot];
    if (!_reader.Holds(layout.records[slot], layout.RecordSize())) continue;
    if (record.size() < layout.RecordSize()) return finding.valid_slots.clear();
    const bool boots = device::RecordBoots(layout.kind, slot, record);
    if (boots) finding.valid_slots.push_back(slot);
    const bool is_signed = layout.HasPointerSectors() && device::RecordIsSigned(record);
    if (boots || is_signed) device.marked.push_back(slot);
  }
  finding.knows_slots = true;
}

/// Drops devices whose bytes cannot be compared. Their records can be read all the same.
void Comparison::GiveUp(const std::vector<device::Guid>& guids, const std::string& reason) {
  if (_takes_records_from_regions) ReadRecords(guids);
  for (const device::Guid guid : guids) _reader.Drop(guid, reason);
}

// ---- What is expected

/// Throws CannotPredict, and Unreadable where a value of the device cannot be had.
device::Bytes Comparison::PredictWay(const Pass& pass, std::size_t way,
                                     const device::Burn::FieldValues& values) const {
  std::vector<ComparedRegion> regions = pass.regions;
  const Expectation expectation(_task.image, _reader.SectorSize(), values);
  if (!_task.ComparesSlots()) {
    expectation.PlainBurn(regions);
  } else if (_task.HasPointerSectors()) {
    expectation.PointerSectorBurn(regions, pass.slot, way == KEPT);
  } else {
    expectation.BootRecordBurn(regions, static_cast<std::uint32_t>(way));
  }
  device::Bytes bytes;
  for (std::size_t i = pass.first; i < regions.size(); ++i) {
    bytes.insert(bytes.end(), regions[i].expected.begin(), regions[i].expected.end());
  }
  return bytes;
}

void Comparison::Predict(const Pass& pass) {
  for (device::Bytes& bytes : _common) bytes.clear();
  for (Device& device : _devices) {
    const device::Guid guid = device.finding.guid;
    std::map<device::FieldType, device::Bytes> known;  // each is requested once
    const auto value_of = [&](device::FieldType type) {
      const auto found = known.find(type);
      if (found != known.end()) return found->second;
      return known[type] = _reader.Field(guid, type);
    };
    for (std::size_t way = 0; way < Ways() && !_reader.IsDropped(guid); ++way) {
      Tally& tally = device.ways[way];
      tally.own.clear();
      tally.next_own = 0;
      try {
        device::Bytes bytes = PredictWay(pass, way, value_of);
        device::Bytes& common = _common[way];
        if (common.empty()) common = bytes;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
          if (bytes[i] != common[i]) tally.own.emplace_back(i, bytes[i]);
        }
      } catch (const CannotPredict& failure) {
        tally.cannot_predict = "cannot compute the expected bytes: " + failure.reason;
      } catch (const Unreadable& failure) {
        GiveUp({guid}, failure.reason);
      }
    }
    const bool is_lost = _task.HasPointerSectors() && Ways() == MOST_WAYS
                             ? !device.ways[KEPT].cannot_predict.empty() &&
                                   !device.ways[REWRITTEN].cannot_predict.empty()
                             : !device.ways[0].cannot_predict.empty();
    if (is_lost) GiveUp({guid}, device.ways[0].cannot_predict);
  }
}

// ---- What is found

void Comparison::ReadAndCompare(const Pass& pass) {
  std::size_t start = 0;
  for (const ComparedRegion& region : pass.Compared()) {
    const auto size = static_cast<std::uint32_t>(region.section->data.size());
    _reader.Read(_guids, region.addr, size,
                 [&](device::Guid guid, std::uint32_t at, std::span<const std::uint8_t> bytes) {
                   Device& device = Of(guid);
                   Take(region, start + (at - region.addr), at - region.addr, bytes, device);
                   if (_takes_records_from_regions) TakeRecords(at, bytes, device);
                   _done += bytes.size();
                   if (_progress) _progress(_done, _total);
                 });
    start += size;
  }
}

/// `place`: of the bytes in the pass; `offset`: in the section.
void Comparison::Take(const ComparedRegion& region, std::size_t place, std::uint32_t offset,
                      std::span<const std::uint8_t> bytes, Device& device) {
  const bool is_invariant = IsInvariant(*region.section);
  device.compared += bytes.size();
  if (is_invariant &&
      !std::ranges::equal(bytes, std::span(region.section->data).subspan(offset, bytes.size()))) {
    device.keeps_invariant = false;
  }
  for (std::size_t way = 0; way < Ways(); ++way) {
    Tally& tally = device.ways[way];
    if (!tally.cannot_predict.empty()) continue;
    const auto common = std::span(_common[way]).subspan(place, bytes.size());
    _expected.assign(common.begin(), common.end());
    while (tally.next_own < tally.own.size() &&
           tally.own[tally.next_own].first < place + bytes.size()) {
      const auto& [own_place, byte] = tally.own[tally.next_own++];
      _expected[own_place - place] = byte;
    }
    if (std::ranges::equal(_expected, bytes)) continue;
    if (is_invariant) tally.has_invariant_sector = false;
    for (std::uint32_t i = 0; i < bytes.size(); ++i) {
      if (_expected[i] == bytes[i]) continue;
      ++tally.different;
      if (tally.differences.size() >= MOST_DIFFERENCES) continue;
      tally.differences.push_back(
          {region.section->name, offset + i, region.addr + offset + i, _expected[i], bytes[i]});
    }
  }
}

/// Which way the burn went.
std::size_t Comparison::ChosenWay(const Device& device) const {
  if (Ways() == 1) return 0;
  if (_task.HasPointerSectors()) return device.keeps_invariant ? KEPT : REWRITTEN;
  // Which slot was burnt first depends on which was valid before: take the order that fits better.
  const Tally& first = device.ways[0];
  const Tally& second = device.ways[1];
  if (first.different == 0) return 0;
  return second.cannot_predict.empty() && first.different <= second.different ? 0 : 1;
}

void Comparison::Conclude(Device& device, std::size_t wanted) const {
  DeviceFinding& finding = device.finding;
  const auto cannot_read = [&finding](const std::string& reason) {
    finding.state = DeviceFinding::UNREADABLE;
    finding.reason = reason;
  };
  if (_reader.IsDropped(finding.guid)) {
    cannot_read(_reader.FailureReason(finding.guid));
    if (!_reader.IsListed(finding.guid)) finding.state = DeviceFinding::UNREACHABLE;
    return;
  }
  Tally& tally = device.ways[ChosenWay(device)];
  if (!tally.cannot_predict.empty()) return cannot_read(tally.cannot_predict);
  // No byte may be taken for compared that was not.
  if (device.compared != wanted) {
    return cannot_read(
        common::Text("compared ", device.compared, " bytes of the image's ", wanted));
  }
  finding.compared = wanted;
  finding.different = tally.different;
  finding.differences = std::move(tally.differences);
  if (!_invariant.empty() && wanted > 0) {
    finding.invariant_sector =
        tally.has_invariant_sector ? InvariantSector::IDENTICAL : InvariantSector::DIFFERENT;
  }
  if (finding.different > 0 && _task.ComparesSlots() && !_task.HasPointerSectors() &&
      MarksOf(_task.image, 0) != MarksOf(_task.image, 1)) {
    finding.reason =
        "the image marks fields or CRCs in one slot only: in the other one they hold what other "
        "devices of the same burn have left there";
  }
  if (_task.choice != SlotChoice::NONE && _task.layout && finding.valid_slots.empty()) {
    finding.reason =
        "no slot is marked valid" + (finding.reason.empty() ? "" : "; " + finding.reason);
  }
  if (wanted == 0 && finding.reason.empty()) return cannot_read("there is no byte to compare");
  finding.state = finding.different == 0 && finding.reason.empty() ? DeviceFinding::IDENTICAL
                                                                   : DeviceFinding::DIFFERENT;
}

Comparison::Device& Comparison::Of(device::Guid guid) {
  return _devices[static_cast<std::size_t>(std::ranges::lower_bound(_guids, guid) -
                                           _guids.begin())];
}

}  // namespace verify
