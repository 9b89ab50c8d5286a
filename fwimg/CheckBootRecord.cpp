#include <numeric>

#include "fwimg/CheckedImage.h"
#include "sim/LocalRom.h"
#include "src/BurnAlgorithm.h"

namespace tools {

namespace {

constexpr u_int32_t SPOILT_BYTE = 3;  ///< of those held back: raised while the slot is written

/// The record as the file has it; the record of the second slot is the same.
void CheckContent(const SectionView& first, const DataVec& record, LineFindings& findings) {
  {
    const sim::QuietConsole quiet;
    if (!RV61300FailsafeBurn::VerifyPllBootRecordChecksum(record, record)) {
      const u_int32_t sum = std::accumulate(record.begin(), record.end(), u_int32_t{0}) % 256;
      findings.Add(ProblemId::RECORD_SUM, first.line,
                   "the boot record of " + Name(first) + " adds up to " + HexText(sum) + ", not " +
                       HexText(sim::BOOT_RECORD_SUM));
    }
  }
  if (record[sim::BOOT_RECORD_MARK] == 1) {
    findings.Add(ProblemId::RECORD_MARKED, first.line,
                 Text("the boot record of ", Name(first), " has 1 in byte ", sim::BOOT_RECORD_MARK,
                      ", which marks it invalid"));
  }
}

/// What a burn writes into the record at `base`.
void CheckRecordPlaces(const CheckedImage& image, u_int64_t base, LineFindings& findings) {
  const auto look = [&](LineNumber line, const std::string& what, const Extent& place) {
    if (place.Overlaps({base, base + sim::BOOT_RECORD_HELD_BACK})) {
      findings.Add(
          ProblemId::FIELD_IN_HELD_BACK, line,
          what + " " + At(place.from) + " lies in the first 4 bytes of the slot " + At(base));
    } else if (place.Overlaps({base, base + sim::BOOT_RECORD_SIZE})) {
      findings.Add(
          ProblemId::FIELD_IN_RECORD, line,
          what + " " + At(place.from) + " lies in the boot record of the slot " + At(base));
    }
  };
  for (const FieldView& field : image.view.Fields()) {
    look(field.line, FieldKeyword(field.type), ExtentOf(field));
  }
  for (const CrcView& crc : image.view.Crcs()) {
    look(crc.line, "a CRC's place", PlaceOf(crc));
    if (!CoveredBy(crc).Overlaps({base + SPOILT_BYTE, base + SPOILT_BYTE + 1})) continue;
    findings.Add(ProblemId::CRC_OVER_SPOILT, crc.line,
                 "the CRC over " + HexText(crc.from) + " covers byte 3 of the slot " + At(base) +
                     ", which is spoilt while the slot is written");
  }
}

}  // namespace

void CheckBootRecord(const CheckedImage& image, LineFindings& findings) {
  if (!image.has_slots) return;
  const SectionView& first = *image.images[0].front().section;
  if (!first.is_whole) return;
  const auto record = image.view.Bytes(first.addr, sim::BOOT_RECORD_SIZE);
  if (first.size < sim::BOOT_RECORD_HELD_BACK || !record) {
    findings.Add(
        ProblemId::RECORD_SHORT, first.line,
        Text(Name(first), " has ", first.size, " bytes, a boot record ", sim::BOOT_RECORD_SIZE));
    return;
  }
  CheckContent(first, *record, findings);
  for (const Sequence& slot : image.images) CheckRecordPlaces(image, slot.front().from, findings);
}

}  // namespace tools
