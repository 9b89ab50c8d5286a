#include "fwimg/CheckBootRecord.h"

#include "device/Boot.h"
#include "device/Burn.h"

namespace fwimg {

namespace {

/// The record as the file has it; the record of the second slot is the same.
void CheckContent(const SectionLines& first, const Bytes& record, LineFindings& findings) {
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
  const auto record = image.file.BytesAt(first.addr, device::BOOT_RECORD_SIZE);
  if (first.size < device::DEFERRED_BYTES || !record) {
    findings.Add(
        ProblemId::RECORD_SHORT, first.line,
        Text(Name(first), " has ", first.size, " bytes, a boot record ", device::BOOT_RECORD_SIZE));
    return;
  }
  CheckContent(first, *record, findings);
  for (const Sequence& slot : image.images) CheckRecordPlaces(image, slot.front().from, findings);
}

}  // namespace fwimg
