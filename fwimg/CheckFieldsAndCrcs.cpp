#include "fwimg/CheckFieldsAndCrcs.h"

#include "device/Boot.h"
#include "device/Crc.h"
#include "fwimg/ImageFacts.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

/// The regions whose burn handles what starts at `from`.
std::vector<const Region*> RegionsOf(const CheckedImage& image, std::uint32_t from) {
  std::vector<const Region*> found;
  for (const Region& region : image.regions) {
    if (region.from > from) break;
    if (from < region.end) found.push_back(&region);
  }
  return found;
}

void CheckAligned(LineNumber line, const std::string& what, std::uint32_t addr,
                  LineFindings& findings) {
  if (addr % WORD_SIZE == 0) return;
  findings.Add(ProblemId::NOT_WORD_ALIGNED, line,
               what + " starts " + At(addr) + ", which is no word's address");
}

/// Whether all that could hold something is known.
bool AllIsWhole(const CheckedImage& image) {
  return std::ranges::all_of(image.file.sections, &SectionLines::is_whole);
}

/// A signature that a failsafe burn blanks, and writes only where it looks for a slot's own.
bool IsLeftBlank(const CheckedImage& image, const FieldLine& field) {
  if (field.type != FieldType::SIGNATURE) return false;
  if (image.kind == SlotKind::BOOT_RECORDS) return true;
  return image.kind == SlotKind::POINTER_SECTORS &&
         std::ranges::none_of(image.file.slots, [&](const SlotLines& slot) {
           return slot.signature && slot.signature->addr == field.addr;
         });
}

void CheckField(const CheckedImage& image, const FieldLine& field, bool is_whole,
                LineFindings& findings) {
  const std::string what = Keyword(field.type) + " " + At(field.addr);
  CheckAligned(field.line, Keyword(field.type), field.addr, findings);
  if (!IsReplaced(image.file.image, field)) {
    findings.Add(ProblemId::FIELD_NOT_REPLACED, field.line,
                 what + " is no device's own value in a generic burn");
    return;  // what the burn does with fields, it does not do with this one
  }
  const auto regions = RegionsOf(image, field.addr);
  if (field.type == FieldType::GUIDS && !regions.empty() && !HasUsualPorts(image.target)) {
    findings.Add(ProblemId::GUIDS_PORTS, field.line,
                 what + " has room for the GUIDs of 1 or 2 ports; the device has " +
                     std::to_string(*image.target.ports));
  }
  if (regions.empty() && is_whole) {
    findings.Add(ProblemId::FIELD_OUTSIDE, field.line,
                 what + " starts in no section that is burnt");
  }
  for (const Region* region : regions) {
    if (ExtentOf(field).end <= region->end || !region->section->is_whole) continue;
    findings.Add(
        ProblemId::FIELD_CROSSES, field.line,
        what + " reaches past " + Name(*region->section) + ", which ends " + At(region->end));
  }
  if (IsLeftBlank(image, field)) {
    findings.Add(ProblemId::SIGNATURE_ELSEWHERE, field.line, what + " is no slot's signature");
  }
}

void CheckCrcRegion(const CrcLine& crc, const Region& region, LineFindings& findings) {
  if (!region.section->is_whole) return;
  if (crc.End() > region.end || PlaceOf(crc).end > region.end) {
    findings.Add(
        ProblemId::CRC_CROSSES, crc.line,
        (crc.End() > region.end ? "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End())
                                : "the CRC's place " + At(crc.addr)) +
            " reaches past " + Name(*region.section) + ", which ends " + At(region.end));
  } else if (crc.addr < region.from) {
    findings.Add(ProblemId::CRC_PLACE, crc.line,
                 "the CRC's place " + At(crc.addr) + " lies before " + Name(*region.section) +
                     ", which it covers");
  }
}

/// A CRC that covers no device's own bytes must be right as it is shipped, unless it is blank.
void CheckStoredCrc(const CheckedImage& image, const CrcLine& crc, LineFindings& findings) {
  if (crc.size % WORD_SIZE != 0 || crc.size == 0) return;
  if (CoveredBy(crc).Overlaps(PlaceOf(crc))) return;
  std::vector<const FieldLine*> signatures;
  for (const FieldLine& field : image.file.fields) {
    if (!IsReplaced(image.file.image, field) || !ExtentOf(field).Overlaps(CoveredBy(crc))) continue;
    if (field.type != FieldType::SIGNATURE) return;
    if (CoveredBy(crc).Contains(ExtentOf(field))) signatures.push_back(&field);
  }
  auto bytes = image.file.BytesAt(crc.from, crc.size);
  const auto word = image.file.BytesAt(crc.addr, WORD_SIZE);
  if (!bytes || !word) return;
  if (*word == Bytes(WORD_SIZE, 0xFF) || *word == Bytes(WORD_SIZE, 0)) return;
  const std::uint32_t stored = image.WordAt(crc.addr);
  const std::uint32_t shipped = device::CrcOf(*bytes);
  if (stored == shipped) return;
  // As a burn makes it: signatures set.
  const Bytes valid = device::WordBytes(device::VALID_SIGNATURE);
  for (const FieldLine* field : signatures) {
    std::ranges::copy(valid, bytes->begin() + (field->addr - crc.from));
  }
  if (stored == device::CrcOf(*bytes)) return;
  findings.Add(ProblemId::CRC_STORED, crc.line,
               "the file has the CRC " + HexText(stored) + " " + At(crc.addr) +
                   "; that of its bytes is " + HexText(shipped));
}

/// A CRC is computed as if all signatures were set. A failsafe burn sets a slot's own, and only
/// with that slot.
void CheckCrcOverSignatures(const CheckedImage& image, const CrcLine& crc, LineFindings& findings) {
  const auto is_set_by = [&](const Sequence* sequence, const FieldLine& field) {
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
      const auto& signature = image.file.slots[idx].signature;
      if (sequence == &image.burnt[idx] && signature && signature->addr == field.addr) return true;
    }
    return false;
  };
  for (const Sequence* sequence : image.Failsafe()) {
    for (const Region& region : *sequence) {
      if (crc.from < region.from || crc.from >= region.end) continue;
      for (const FieldLine& field : image.file.fields) {
        if (field.type != FieldType::SIGNATURE || field.addr < region.from ||
            field.addr >= region.end || !ExtentOf(field).Overlaps(CoveredBy(crc))) {
          continue;
        }
        if (image.kind == SlotKind::POINTER_SECTORS && is_set_by(sequence, field)) continue;
        findings.Add(ProblemId::CRC_OVER_SIGNATURE, crc.line, [&] {
          return "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End()) +
                 " covers the SIGNATURE " + At(field.addr) + " of " + Line(field.line) +
                 ", which is not set with " + Name(*region.section);
        });
      }
    }
  }
}

void CheckCrc(const CheckedImage& image, const CrcLine& crc, bool is_whole,
              LineFindings& findings) {
  const std::string what = "the CRC over " + HexText(crc.from);
  CheckAligned(crc.line, "the CRC's range", crc.from, findings);
  CheckAligned(crc.line, "the CRC's place", crc.addr, findings);
  if (crc.size % WORD_SIZE != 0) {
    findings.Add(ProblemId::CRC_NOT_WORDS, crc.line,
                 what + " covers " + HexText(crc.size) + " bytes, which are no whole words");
  }
  if (crc.size == 0) {
    findings.Add(ProblemId::CRC_EMPTY, crc.line, what + " covers no bytes");
  }
  const auto regions = RegionsOf(image, crc.from);
  if (regions.empty() && is_whole) {
    findings.Add(ProblemId::CRC_OUTSIDE, crc.line, what + " starts in no section that is burnt");
  }
  for (const Region* region : regions) CheckCrcRegion(crc, *region, findings);
  CheckStoredCrc(image, crc, findings);
  CheckCrcOverSignatures(image, crc, findings);
}

/// What a burn writes by itself: a field, or a CRC word.
struct Written : Extent {
  LineNumber line;
  std::string what;
  std::optional<FieldType> type;  ///< none for a CRC word
};

/// Fields and CRC words that lie on each other.
void CheckWritten(const CheckedImage& image, LineFindings& findings) {
  std::vector<Written> places;
  for (const FieldLine& field : image.file.fields) {
    if (!IsReplaced(image.file.image, field)) continue;
    places.push_back({ExtentOf(field), field.line, Keyword(field.type), field.type});
  }
  for (const CrcLine& crc : image.file.crcs) {
    places.push_back({PlaceOf(crc), crc.line, "a CRC's place", std::nullopt});
  }
  std::ranges::stable_sort(places, {}, &Written::from);
  for (std::size_t i = 0; i < places.size(); ++i) {
    for (std::size_t j = i + 1; j < places.size() && places[j].from < places[i].end; ++j) {
      const bool in_order = places[i].line <= places[j].line;
      const Written& later = in_order ? places[j] : places[i];
      const Written& first = in_order ? places[i] : places[j];
      const bool is_same = first.type && first.type == later.type && first.from == later.from;
      findings.Add(is_same ? ProblemId::FIELD_TWICE : ProblemId::FIELD_OVERLAP, later.line, [&] {
        return later.what + " " + At(later.from) + " overlaps " + first.what + " " +
               At(first.from) + " of " + Line(first.line);
      });
    }
  }
}

/// CRCs that cover CRC words.
void CheckCrcsOverCrcs(const CheckedImage& image, LineFindings& findings) {
  for (const CrcLine& crc : image.file.crcs) {
    for (const CrcLine& other : image.file.crcs) {
      if (!CoveredBy(crc).Overlaps(PlaceOf(other))) continue;
      if (&crc == &other) {
        findings.Add(ProblemId::CRC_OVER_ITSELF, crc.line, "the CRC covers its own place");
        continue;
      }
      findings.Add(ProblemId::CRC_OVER_CRC, crc.line, [&] {
        return "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End()) +
               " covers the place " + At(other.addr) + " of the CRC of " + Line(other.line);
      });
    }
  }
}

/// What is marked in the `extent` bytes from `base` on must be marked from `other_base` on, too.
void CompareSlots(const CheckedImage& image, std::uint32_t base, std::uint32_t other_base,
                  std::uint64_t extent, std::uint32_t idx, LineFindings& findings) {
  const device::ImageFile& file = image.file;
  const Extent slot{base, base + extent};
  const std::uint32_t delta = other_base - base;
  const auto tell = [&](LineNumber line, const std::string& what, std::uint32_t from) {
    findings.Add(ProblemId::ONE_SLOT_ONLY, line,
                 Text(what, " ", At(from), " is marked in slot ", idx, " only, not ",
                      At(std::uint32_t{from + delta}), " in slot ", 1 - idx));
  };
  for (const FieldLine& field : file.fields) {
    const bool is_of_slot = field.type == FieldType::SIGNATURE && !IsLeftBlank(image, field);
    if (is_of_slot || field.addr < slot.from || field.addr >= slot.end) continue;
    const bool has_counterpart = std::ranges::any_of(file.fields, [&](const FieldLine& other) {
      return other.type == field.type && other.addr == field.addr + delta;
    });
    if (!has_counterpart) tell(field.line, Keyword(field.type), field.addr);
  }
  for (const CrcLine& crc : file.crcs) {
    if (crc.from < slot.from || crc.from >= slot.end) continue;
    const bool has_counterpart = std::ranges::any_of(file.crcs, [&](const CrcLine& other) {
      return other.from == crc.from + delta && other.size == crc.size &&
             other.addr == crc.addr + delta;
    });
    if (!has_counterpart) tell(crc.line, "the CRC", crc.from);
  }
}

}  // namespace

void CheckFieldsAndCrcs(const CheckedImage& image, LineFindings& findings) {
  const bool is_whole = AllIsWhole(image);
  for (const FieldLine& field : image.file.fields) CheckField(image, field, is_whole, findings);
  for (const CrcLine& crc : image.file.crcs) CheckCrc(image, crc, is_whole, findings);
  CheckWritten(image, findings);
  CheckCrcsOverCrcs(image, findings);
  if (!image.has_slots) return;
  const auto& slots = image.file.slots;
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const SlotLines& slot = slots[idx];
    const SlotLines& other = slots[1 - idx];
    CompareSlots(image, slot.image->addr, other.image->addr, image.slot_extent, idx, findings);
    if (image.kind != SlotKind::POINTER_SECTORS) continue;
    const SectionLines* ps = image.file.SectionAt(slot.pointer_sector->addr);
    CompareSlots(image, slot.pointer_sector->addr, other.pointer_sector->addr,
                 ps == nullptr ? device::POINTER_RECORD_SIZE : ps->size, idx, findings);
  }
}

}  // namespace fwimg
