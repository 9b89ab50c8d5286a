#include "fwimg/CheckBootRecord.h"

#include <optional>

#include "device/Boot.h"
#include "device/Burn.h"
#include "fwimg/BurntParts.h"

namespace fwimg {

namespace {

/// The record as the file has it; the record of the second slot is the same.
/// Returns whether it is right.
bool CheckContent(const SectionLines& first, const Bytes& record, LineFindings& findings) {
  const std::uint32_t sum = device::BootRecordSum(record);
  if (sum != device::BOOT_RECORD_SUM) {
    findings.Add(ProblemId::RECORD_SUM, first.line,
                 "the boot record of " + Name(first) + " adds up to " + HexText(sum) + ", not " +
                     HexText(device::BOOT_RECORD_SUM));
  }
  if (record[device::FIRST_INVALID_MARK] == 1) {
    findings.Add(ProblemId::RECORD_MARKED, first.line,
                 Text("the boot record of ", Name(first), " has 1 in byte ",
                      device::FIRST_INVALID_MARK, ", which marks it invalid"));
  }
  return sum == device::BOOT_RECORD_SUM && record[device::FIRST_INVALID_MARK] != 1;
}

/// The record that a slot gets: from the sections that its burn writes, whatever else the file has
/// at these addresses. Nothing where it lacks a byte.
std::optional<Bytes> RecordOf(const CheckedImage& image) {
  const Sequence& slot = image.images[0];
  Bytes record;
  for (std::uint64_t at = slot.front().from; record.size() < device::BOOT_RECORD_SIZE; ++at) {
    const auto region = std::ranges::find_if(
        slot, [&](const Region& each) { return each.from <= at && at < each.end; });
    if (region == slot.end() || !region->section->is_whole) return std::nullopt;
    record.push_back(
        image.file.DataOf(*region->section)[static_cast<std::size_t>(at - region->from)]);
  }
  return record;
}

/// Whether a burn fills a byte of the record itself, which is a kind of its own.
bool IsMarked(const CheckedImage& image, const Extent& record) {
  return std::ranges::any_of(
             image.file.fields,
             [&](const FieldLine& field) { return ExtentOf(field).Overlaps(record); }) ||
         std::ranges::any_of(image.file.crcs,
                             [&](const CrcLine& crc) { return PlaceOf(crc).Overlaps(record); });
}

/// Boot code looks at the records that are burnt.
void CheckBurntRecords(const CheckedImage& image, LineFindings& findings) {
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const std::uint64_t base = image.images[idx].front().from;
    if (IsMarked(image, {base, base + device::BOOT_RECORD_SIZE})) continue;
    BurntParts memory(image);
    memory.Add(static_cast<std::uint32_t>(base), device::BOOT_RECORD_SIZE);
    if (!memory.Burn(device::BurnKind::FAILSAFE, {.slots = {0, 1}})) return;
    const Bytes& record = memory.Part(0);
    if (device::RecordBoots(image.kind, idx, record)) continue;
    findings.Add(
        ProblemId::RECORD_SUM, image.images[idx].front().section->line,
        Text("a burn leaves a boot record in slot ", idx, " that adds up to ",
             HexText(device::BootRecordSum(record)), ", not ", HexText(device::BOOT_RECORD_SUM)));
  }
}

/// What a burn writes into the record at `base`.
void CheckRecordPlaces(const CheckedImage& image, std::uint64_t base, LineFindings& findings) {
  const auto look = [&](LineNumber line, const std::string& what, const Extent& place) {
    if (place.Overlaps({base, base + device::DEFERRED_BYTES})) {
      findings.Add(
          ProblemId::FIELD_IN_HELD_BACK, line,
          what + " " + At(place.from) + " lies in the first 4 bytes of the slot " + At(base));
    } else if (place.Overlaps({base, base + device::BOOT_RECORD_SIZE})) {
      findings.Add(
          ProblemId::FIELD_IN_RECORD, line,
          what + " " + At(place.from) + " lies in the boot record of the slot " + At(base));
    }
  };
  for (const FieldLine& field : image.file.fields) {
    look(field.line, Keyword(field.type), ExtentOf(field));
  }
  for (const CrcLine& crc : image.file.crcs) {
    look(crc.line, "a CRC's place", PlaceOf(crc));
    if (!CoveredBy(crc).Overlaps({base + device::SPOILT_BYTE, base + device::SPOILT_BYTE + 1}))
      continue;
    findings.Add(ProblemId::CRC_OVER_SPOILT, crc.line,
                 "the CRC over " + HexText(crc.from) + " covers byte 3 of the slot " + At(base) +
                     ", which is spoilt while the slot is written");
  }
}

}  // namespace

void CheckBootRecord(const CheckedImage& image, LineFindings& findings) {
  if (!image.has_slots) return;
  const SectionLines& first = *image.images[0].front().section;
  if (!first.is_whole) return;
  const auto record = RecordOf(image);
  if (first.size < device::DEFERRED_BYTES || !record) {
    findings.Add(
        ProblemId::RECORD_SHORT, first.line,
        Text(Name(first), " has ", first.size, " bytes, a boot record ", device::BOOT_RECORD_SIZE,
             record ? "; its first 4 bytes are written last, all at once"
                    : ", and no other section of the slot has the rest"));
    return;
  }
  const bool is_right = CheckContent(first, *record, findings);
  for (const Sequence& slot : image.images) CheckRecordPlaces(image, slot.front().from, findings);
  if (is_right) CheckBurntRecords(image, findings);
}

}  // namespace fwimg
