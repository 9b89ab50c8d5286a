#include "fwimg/CheckedImage.h"
#include "src/BraidGeneral.h"

namespace tools {

namespace {

/// The regions whose burn handles what starts at `from`.
std::vector<const Region*> RegionsOf(const CheckedImage& image, u_int32_t from) {
  std::vector<const Region*> found;
  for (const Region& region : image.regions) {
    if (region.from > from) break;
    if (from < region.end) found.push_back(&region);
  }
  return found;
}

void CheckAligned(LineNumber line, const std::string& what, u_int32_t addr,
                  LineFindings& findings) {
  if (addr % WORD_SIZE == 0) return;
  findings.Add(ProblemId::NOT_WORD_ALIGNED, line,
               what + " starts " + At(addr) + ", which is no word's address");
}

/// Whether all that could hold something is known.
bool AllIsWhole(const CheckedImage& image) {
  return std::ranges::all_of(image.view.Sections(), &SectionView::is_whole);
}

/// A signature that a failsafe burn blanks, and writes only where it looks for a slot's own.
bool IsLeftBlank(const CheckedImage& image, const FieldView& field) {
  if (field.type != SIGNATURE) return false;
  if (image.family == Family::BOOT_RECORDS) return true;
  return image.family == Family::POINTER_SECTORS &&
         std::ranges::none_of(image.view.Slots(), [&](const SlotView& slot) {
           return slot.signature && slot.signature->addr == field.from;
         });
}

void CheckField(const CheckedImage& image, const FieldView& field, bool is_whole,
                LineFindings& findings) {
  const std::string what = FieldKeyword(field.type) + " " + At(field.from);
  CheckAligned(field.line, FieldKeyword(field.type), field.from, findings);
  if (!image.view.IsReplaced(field)) {
    findings.Add(ProblemId::FIELD_NOT_REPLACED, field.line,
                 what + " is no device's own value in a generic burn");
    return;  // what the burn does with fields, it does not do with this one
  }
  const auto regions = RegionsOf(image, field.from);
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

void CheckCrcRegion(const CrcView& crc, const Region& region, LineFindings& findings) {
  if (!region.section->is_whole) return;
  if (crc.End() > region.end || PlaceOf(crc).end > region.end) {
    findings.Add(
        ProblemId::CRC_CROSSES, crc.line,
        (crc.End() > region.end ? "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End())
                                : "the CRC's place " + At(crc.crc_addr)) +
            " reaches past " + Name(*region.section) + ", which ends " + At(region.end));
  } else if (crc.crc_addr < region.from) {
    findings.Add(ProblemId::CRC_PLACE, crc.line,
                 "the CRC's place " + At(crc.crc_addr) + " lies before " + Name(*region.section) +
                     ", which it covers");
  }
}

/// A CRC that covers no device's own bytes must be right as it is shipped, unless it is blank.
void CheckStoredCrc(const CheckedImage& image, const CrcView& crc, LineFindings& findings) {
  if (crc.size % WORD_SIZE != 0 || crc.size == 0) return;
  if (CoveredBy(crc).Overlaps(PlaceOf(crc))) return;
  std::vector<const FieldView*> signatures;
  for (const FieldView& field : image.view.Fields()) {
    if (!image.view.IsReplaced(field) || !ExtentOf(field).Overlaps(CoveredBy(crc))) continue;
    if (field.type != SIGNATURE) return;
    if (CoveredBy(crc).Contains(ExtentOf(field))) signatures.push_back(&field);
  }
  auto bytes = image.view.Bytes(crc.from, crc.size);
  const auto word = image.view.Bytes(crc.crc_addr, WORD_SIZE);
  if (!bytes || !word) return;
  if (*word == DataVec(WORD_SIZE, 0xFF) || *word == DataVec(WORD_SIZE, 0)) return;
  const u_int32_t stored = image.WordAt(crc.crc_addr);
  const u_int32_t shipped = sim::CrcOf(*bytes);
  if (stored == shipped) return;
  // As a burn makes it: signatures set.
  DataVec valid;
  valid << sim::VALID_SIGNATURE;
  for (const FieldView* field : signatures) {
    std::ranges::copy(valid, bytes->begin() + (field->from - crc.from));
  }
  if (stored == sim::CrcOf(*bytes)) return;
  findings.Add(ProblemId::CRC_STORED, crc.line,
               "the file has the CRC " + HexText(stored) + " " + At(crc.crc_addr) +
                   "; that of its bytes is " + HexText(shipped));
}

void CheckCrc(const CheckedImage& image, const CrcView& crc, bool is_whole,
              LineFindings& findings) {
  const std::string what = "the CRC over " + HexText(crc.from);
  CheckAligned(crc.line, "the CRC's range", crc.from, findings);
  CheckAligned(crc.line, "the CRC's place", crc.crc_addr, findings);
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
}

/// What a burn writes by itself: a field, or a CRC word.
struct Written : Extent {
  LineNumber line;
  std::string what;
  FieldType type;  ///< UNKNOWN_FIELD for a CRC word
};

/// Fields and CRC words that lie on each other.
void CheckWritten(const CheckedImage& image, LineFindings& findings) {
  std::vector<Written> places;
  for (const FieldView& field : image.view.Fields()) {
    if (!image.view.IsReplaced(field)) continue;
    places.push_back({ExtentOf(field), field.line, FieldKeyword(field.type), field.type});
  }
  for (const CrcView& crc : image.view.Crcs()) {
    places.push_back({PlaceOf(crc), crc.line, "a CRC's place", UNKNOWN_FIELD});
  }
  std::ranges::stable_sort(places, {}, &Written::from);
  for (std::size_t i = 0; i < places.size(); ++i) {
    for (std::size_t j = i + 1; j < places.size() && places[j].from < places[i].end; ++j) {
      const bool in_order = places[i].line <= places[j].line;
      const Written& later = in_order ? places[j] : places[i];
      const Written& first = in_order ? places[i] : places[j];
      const bool is_same =
          first.type != UNKNOWN_FIELD && first.type == later.type && first.from == later.from;
      findings.Add(is_same ? ProblemId::FIELD_TWICE : ProblemId::FIELD_OVERLAP, later.line, [&] {
        return later.what + " " + At(later.from) + " lies on " + first.what + " " + At(first.from) +
               " of " + Line(first.line);
      });
    }
  }
}

/// CRCs that cover CRC words.
void CheckCrcsOverCrcs(const CheckedImage& image, LineFindings& findings) {
  for (const CrcView& crc : image.view.Crcs()) {
    for (const CrcView& other : image.view.Crcs()) {
      if (!CoveredBy(crc).Overlaps(PlaceOf(other))) continue;
      if (&crc == &other) {
        findings.Add(ProblemId::CRC_OVER_ITSELF, crc.line, "the CRC covers its own place");
        continue;
      }
      findings.Add(ProblemId::CRC_OVER_CRC, crc.line, [&] {
        return "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End()) +
               " covers the place " + At(other.crc_addr) + " of the CRC of " + Line(other.line);
      });
    }
  }
}

/// What is marked in the `extent` bytes from `base` on must be marked from `other_base` on, too.
void CompareSlots(const ImageView& view, u_int32_t base, u_int32_t other_base, u_int64_t extent,
                  u_int32_t idx, LineFindings& findings) {
  const Extent slot{base, base + extent};
  const u_int32_t delta = other_base - base;
  const auto tell = [&](LineNumber line, const std::string& what, u_int32_t from) {
    findings.Add(ProblemId::ONE_SLOT_ONLY, line,
                 Text(what, " ", At(from), " is marked in slot ", idx, " only, not ",
                      At(u_int32_t{from + delta}), " in slot ", 1 - idx));
  };
  for (const FieldView& field : view.Fields()) {
    if (field.type == SIGNATURE || field.from < slot.from || field.from >= slot.end) continue;
    const bool is_twin = std::ranges::any_of(view.Fields(), [&](const FieldView& twin) {
      return twin.type == field.type && twin.from == field.from + delta;
    });
    if (!is_twin) tell(field.line, FieldKeyword(field.type), field.from);
  }
  for (const CrcView& crc : view.Crcs()) {
    if (crc.from < slot.from || crc.from >= slot.end) continue;
    const bool is_twin = std::ranges::any_of(view.Crcs(), [&](const CrcView& twin) {
      return twin.from == crc.from + delta && twin.size == crc.size &&
             twin.crc_addr == crc.crc_addr + delta;
    });
    if (!is_twin) tell(crc.line, "the CRC", crc.from);
  }
}

}  // namespace

void CheckPlaces(const CheckedImage& image, LineFindings& findings) {
  const bool is_whole = AllIsWhole(image);
  for (const FieldView& field : image.view.Fields()) CheckField(image, field, is_whole, findings);
  for (const CrcView& crc : image.view.Crcs()) CheckCrc(image, crc, is_whole, findings);
  CheckWritten(image, findings);
  CheckCrcsOverCrcs(image, findings);
  if (!image.has_slots) return;
  const auto& slots = image.view.Slots();
  for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
    const SlotView& slot = slots[idx];
    const SlotView& other = slots[1 - idx];
    CompareSlots(image.view, slot.image->addr, other.image->addr, image.view.ImageExtent(), idx,
                 findings);
    if (image.family != Family::POINTER_SECTORS) continue;
    const SectionView* ps = image.view.SectionAt(slot.ps->addr);
    CompareSlots(image.view, slot.ps->addr, other.ps->addr,
                 ps == nullptr ? sim::PS_RECORD_SIZE : ps->size, idx, findings);
  }
}

}  // namespace tools
