#include "fwimg/CheckedImage.h"
#include "src/BraidGeneral.h"

namespace tools {

namespace {

constexpr Extent MARKER{sim::INVARIANT_MARKER, sim::INVARIANT_MARKER + WORD_SIZE};
constexpr u_int32_t FIRST_IMAGE_SECTOR =
    3;  ///< where a burn moves a second image that is in its way

DataVec Signature() {
  DataVec signature;
  signature << sim::VALID_SIGNATURE;
  return signature;
}

void CheckRecord(const CheckedImage& image, u_int32_t idx, const SectionView& ps,
                 LineFindings& findings) {
  const SlotView& slot = image.view.Slots()[idx];
  const u_int32_t image_addr = image.WordAt(ps.addr);
  if (slot.image && image_addr != slot.image->addr) {
    findings.Add(ProblemId::PS_RECORD, ps.line,
                 Text(Name(ps), " points to ", HexText(image_addr), "; IMAGE ", idx, " is ",
                      At(slot.image->addr)));
  }
  const u_int32_t size = image.WordAt(u_int64_t{ps.addr} + WORD_SIZE);
  if (image.has_slots && size != image.view.ImageExtent()) {
    findings.Add(ProblemId::PS_SIZE, ps.line,
                 Text(Name(ps), " gives the image ", HexText(size), " bytes; it has ",
                      HexText(image.view.ImageExtent())));
  }
  const u_int32_t crc_addr = ps.addr + sim::PS_CRC_OFFSET;
  const bool is_recomputed = std::ranges::any_of(image.view.Crcs(), [&](const CrcView& crc) {
    return crc.from == ps.addr && crc.size == sim::PS_CRC_OFFSET && crc.crc_addr == crc_addr;
  });
  if (is_recomputed) return;
  // Not computed at the burn: it must fit the signature that the burn sets.
  auto record = image.view.Bytes(ps.addr, sim::PS_CRC_OFFSET);
  if (!record) return;
  std::ranges::copy(Signature(), record->begin() + sim::PS_SIGNATURE_OFFSET);
  if (image.WordAt(crc_addr) != sim::CrcOf(*record)) {
    findings.Add(ProblemId::PS_CRC, ps.line,
                 "no CRC is marked over the record of " + Name(ps) +
                     ", and the one it has does not fit the record once it is signed");
  }
}

void CheckPointerSector(const CheckedImage& image, u_int32_t idx, LineFindings& findings) {
  const SlotView& slot = image.view.Slots()[idx];
  if (!slot.ps) return;
  if (slot.signature && slot.signature->addr != slot.ps->addr + sim::PS_SIGNATURE_OFFSET) {
    findings.Add(ProblemId::SIGNATURE_PLACE, slot.signature->line,
                 Text("SIGNATURE ", idx, " ", At(slot.signature->addr), " is not at PS ", idx,
                      " + 8, ", HexText(u_int64_t{slot.ps->addr} + sim::PS_SIGNATURE_OFFSET)));
  }
  const SectionView* ps = image.view.SectionAt(slot.ps->addr);
  if (ps == nullptr) {
    findings.Add(ProblemId::PS_WITHOUT_SECTION, slot.ps->line,
                 Text("no section starts at PS ", idx, ", ", HexText(slot.ps->addr)));
    return;
  }
  if (!ps->is_whole) return;
  if (ps->size < sim::PS_RECORD_SIZE) {
    findings.Add(ProblemId::PS_SHORT, ps->line,
                 Text(Name(*ps), " has ", ps->size, " bytes, a pointer sector record ",
                      sim::PS_RECORD_SIZE));
    return;
  }
  CheckRecord(image, idx, *ps, findings);
  const u_int32_t shipped = image.WordAt(u_int64_t{ps->addr} + sim::PS_SIGNATURE_OFFSET);
  if (shipped == sim::VALID_SIGNATURE && slot.image &&
      !image.view.Bytes(slot.image->addr, WORD_SIZE)) {
    findings.Add(ProblemId::SIGNATURE_SHIPPED, ps->line,
                 Name(*ps) + " is shipped with a valid signature, but the file has no bytes " +
                     At(slot.image->addr));
  }
}

/// The sections of the invariant sector stand first, or a failsafe burn does not see them.
void CheckInvariantOrder(const CheckedImage& image, LineFindings& findings) {
  bool is_past = false;
  for (const SectionView* section : image.kept) {
    if (section->addr >= image.sector) {
      is_past = true;
    } else if (is_past) {
      findings.Add(ProblemId::INVARIANT_NOT_FIRST, section->line,
                   Name(*section) + " " + At(section->addr) +
                       " lies in the invariant sector, but "
                       "stands behind a section that does not");
    }
  }
}

void CheckMarker(const CheckedImage& image, LineFindings& findings) {
  const auto covers = [](const SectionView* section) {
    return ExtentOf(*section).Contains(MARKER);
  };
  const auto over = std::ranges::find_if(image.kept, covers);
  if (over == image.kept.end() || !image.view.Bytes(MARKER.from, WORD_SIZE)) return;
  if (image.WordAt(MARKER.from) == sim::VALID_SIGNATURE) return;
  findings.Add(ProblemId::MARKER_MISSING, (*over)->line,
               Name(**over) + " has no failsafe marker CB 84 CB 84 at 0x24");
}

/// What a burn writes into the invariant sector for each device.
void CheckInvariantPlaces(const CheckedImage& image, LineFindings& findings) {
  const auto look = [&](LineNumber line, const std::string& what, const Extent& place,
                        bool is_constant) {
    if (place.from >= image.sector) return;
    if (place.Overlaps(MARKER)) {
      findings.Add(ProblemId::MARKER_BLANKED, line,
                   what + " " + At(place.from) + " lies on the failsafe marker at 0x24");
    } else if (!is_constant && image.SectionOver(place.from) != nullptr) {
      findings.Add(ProblemId::FIELD_IN_INVARIANT, line,
                   what + " " + At(place.from) + " lies in the invariant sector");
    }
  };
  for (const FieldView& field : image.view.Fields()) {
    look(field.line, FieldKeyword(field.type), ExtentOf(field), false);
  }
  for (const CrcView& crc : image.view.Crcs()) {
    // A CRC over bytes that are the same for all is as good as any other byte.
    const bool is_constant = std::ranges::none_of(image.view.Fields(), [&](const FieldView& field) {
      return ExtentOf(field).Overlaps(CoveredBy(crc));
    });
    look(crc.line, "a CRC's place", PlaceOf(crc), is_constant);
  }
}

void CheckFirstSlot(const CheckedImage& image, LineFindings& findings) {
  const auto& first = image.view.Slots()[0].image;
  const u_int64_t moved_to = u_int64_t{FIRST_IMAGE_SECTOR} * image.sector;
  if (!first || first->addr == moved_to) return;
  findings.Add(ProblemId::FIRST_SLOT_PLACE, first->line,
               "IMAGE 0 is " + At(first->addr) + ", not at 3 sectors, " + HexText(moved_to));
}

/// Follows the erases of one burn, sector by sector. `needed`: what they must spare besides what
/// the burn itself has written.
void CheckErasesOf(const Sequence& sequence, const std::vector<const Sequence*>& needed,
                   u_int32_t sector, LineFindings& findings) {
  std::optional<u_int64_t> last;  // the sector that was erased last
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    const Region& region = sequence[i];
    if (region.from == region.end) continue;
    const u_int64_t first_sector = region.from / sector;
    const u_int64_t last_sector = (region.end - 1) / sector;
    const bool goes_on = last == first_sector;
    last = last_sector;
    if (!goes_on && region.from % sector != 0) {
      findings.Add(ProblemId::ERASE_UNALIGNED, region.section->line, [&] {
        return Name(*region.section) + ", burnt " + At(region.from) + ", starts no sector of " +
               HexText(sector) + " bytes";
      });
      continue;
    }
    const Extent erased{(goes_on ? first_sector + 1 : first_sector) * sector,
                        (last_sector + 1) * sector};
    const auto spoils = [&](const Region& other) {
      if (other.section == region.section && other.from == region.from) return;
      if (!other.Overlaps(erased) || other.Overlaps(region)) return;  // that is told as overlap
      findings.Add(ProblemId::ERASE_SPOILS, region.section->line, [&] {
        return Name(*region.section) + ", burnt " + At(region.from) + ", shares a sector with " +
               Name(*other.section) + " " + At(other.from);
      });
    };
    for (std::size_t j = 0; j < i; ++j) spoils(sequence[j]);
    for (const Sequence* other : needed) std::ranges::for_each(*other, spoils);
  }
}

void CheckErases(const CheckedImage& image, LineFindings& findings) {
  const auto failsafe = image.Failsafe();
  for (const Sequence* sequence : failsafe) {
    auto needed = failsafe;
    std::erase(needed, sequence);
    CheckErasesOf(*sequence, needed, image.sector, findings);
  }
  CheckErasesOf(image.all, {}, image.sector, findings);
}

void CheckFlashEnd(const CheckedImage& image, u_int32_t flash_size, LineFindings& findings) {
  for (const Region& region : image.regions) {
    if (region.from == region.end || region.end <= flash_size) continue;
    findings.Add(ProblemId::PAST_FLASH, region.section->line,
                 Name(*region.section) + ", burnt " + At(region.from) + ", ends " + At(region.end) +
                     ", past the " + HexText(flash_size) + " bytes of the flash");
  }
}

}  // namespace

void CheckFlash(const CheckedImage& image, std::optional<u_int32_t> flash_size,
                LineFindings& findings) {
  if (image.family == Family::POINTER_SECTORS) {
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) CheckPointerSector(image, idx, findings);
    CheckInvariantOrder(image, findings);
    CheckMarker(image, findings);
    CheckInvariantPlaces(image, findings);
    CheckFirstSlot(image, findings);
  }
  CheckErases(image, findings);
  if (flash_size) CheckFlashEnd(image, *flash_size, findings);
}

}  // namespace tools
