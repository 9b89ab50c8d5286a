// The order of writes and erases of a flash is computed a second time here, from the lines of an
// image file; device/Burn.cpp computes it for the judge.
#include "fwimg/CheckFlash.h"

#include "device/Boot.h"
#include "device/Crc.h"

namespace fwimg {

namespace {

constexpr Extent MARKER{device::FAILSAFE_MARKER, device::FAILSAFE_MARKER + WORD_SIZE};

Bytes Signature() { return device::WordBytes(device::VALID_SIGNATURE); }

void CheckRecord(const CheckedImage& image, std::uint32_t idx, const SectionLines& ps,
                 LineFindings& findings) {
  const SlotLines& slot = image.file.slots[idx];
  const std::uint32_t image_addr = image.WordAt(ps.addr);
  if (slot.image && image_addr != slot.image->addr) {
    findings.Add(ProblemId::PS_RECORD, ps.line,
                 Text(Name(ps), " points to ", HexText(image_addr), "; IMAGE ", idx, " is ",
                      At(slot.image->addr)));
  }
  const std::uint32_t size = image.WordAt(std::uint64_t{ps.addr} + WORD_SIZE);
  if (image.has_slots && size != image.slot_extent) {
    const bool is_part = size < image.slot_extent;
    findings.Add(is_part ? ProblemId::PS_SIZE : ProblemId::PS_SIZE_LARGE, ps.line,
                 Text(Name(ps), " gives the image ", HexText(size), " bytes; it has ",
                      HexText(image.slot_extent)));
  }
  const std::uint32_t crc_addr = ps.addr + device::RECORD_CRC;
  const bool is_recomputed = std::ranges::any_of(image.file.crcs, [&](const CrcLine& crc) {
    return crc.from == ps.addr && crc.size == device::RECORD_CRC && crc.addr == crc_addr;
  });
  if (is_recomputed) return;
  // Not computed at the burn: it must fit the signature that the burn sets.
  auto record = image.file.BytesAt(ps.addr, device::RECORD_CRC);
  if (!record) return;
  std::ranges::copy(Signature(), record->begin() + device::RECORD_SIGNATURE);
  if (image.WordAt(crc_addr) != device::CrcOf(*record)) {
    findings.Add(ProblemId::PS_CRC, ps.line,
                 "no CRC is marked over the record of " + Name(ps) +
                     ", and the one it has does not fit the record once it is signed");
  }
}

void CheckPointerSector(const CheckedImage& image, std::uint32_t idx, LineFindings& findings) {
  const SlotLines& slot = image.file.slots[idx];
  if (!slot.pointer_sector) return;
  if (slot.signature &&
      slot.signature->addr != slot.pointer_sector->addr + device::RECORD_SIGNATURE) {
    findings.Add(
        ProblemId::SIGNATURE_PLACE, slot.signature->line,
        Text("SIGNATURE ", idx, " ", At(slot.signature->addr), " is not at PS ", idx, " + 8, ",
             HexText(std::uint64_t{slot.pointer_sector->addr} + device::RECORD_SIGNATURE)));
  }
  const SectionLines* ps = image.file.SectionAt(slot.pointer_sector->addr);
  if (ps == nullptr) {
    findings.Add(ProblemId::PS_WITHOUT_SECTION, slot.pointer_sector->line,
                 Text("no section starts at PS ", idx, ", ", HexText(slot.pointer_sector->addr)));
    return;
  }
  if (!ps->is_whole) return;
  if (ps->size < device::POINTER_RECORD_SIZE) {
    findings.Add(ProblemId::PS_SHORT, ps->line,
                 Text(Name(*ps), " has ", ps->size, " bytes, a pointer sector record ",
                      device::POINTER_RECORD_SIZE));
    return;
  }
  CheckRecord(image, idx, *ps, findings);
  const std::uint32_t shipped = image.WordAt(std::uint64_t{ps->addr} + device::RECORD_SIGNATURE);
  if (shipped == device::VALID_SIGNATURE && slot.image &&
      !image.file.BytesAt(slot.image->addr, WORD_SIZE)) {
    findings.Add(ProblemId::SIGNATURE_SHIPPED, ps->line,
                 Name(*ps) + " is shipped with a valid signature, but the file has no bytes " +
                     At(slot.image->addr));
  }
}

/// The sections of the invariant sector stand first, or a failsafe burn does not see them.
void CheckInvariantOrder(const CheckedImage& image, LineFindings& findings) {
  bool is_past = false;
  for (const SectionLines* section : image.kept) {
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
  const auto covers = [](const SectionLines* section) {
    return ExtentOf(*section).Contains(MARKER);
  };
  const auto over = std::ranges::find_if(image.kept, covers);
  if (over == image.kept.end() || !image.file.BytesAt(MARKER.from, WORD_SIZE)) return;
  if (image.WordAt(MARKER.from) == device::VALID_SIGNATURE) return;
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
                   what + " " + At(place.from) + " overlaps the failsafe marker at 0x24");
    } else if (!is_constant && image.SectionOver(place.from) != nullptr) {
      findings.Add(ProblemId::FIELD_IN_INVARIANT, line,
                   what + " " + At(place.from) + " lies in the invariant sector");
    }
  };
  for (const FieldLine& field : image.file.fields) {
    look(field.line, Keyword(field.type), ExtentOf(field), false);
  }
  for (const CrcLine& crc : image.file.crcs) {
    // A CRC over bytes that are the same for all is as good as any other byte.
    const bool is_constant = std::ranges::none_of(image.file.fields, [&](const FieldLine& field) {
      return ExtentOf(field).Overlaps(CoveredBy(crc));
    });
    look(crc.line, "a CRC's place", PlaceOf(crc), is_constant);
  }
}

void CheckFirstSlot(const CheckedImage& image, LineFindings& findings) {
  const auto& first = image.file.slots[0].image;
  const std::uint64_t moved_to = std::uint64_t{device::FIRST_IMAGE_SECTOR} * image.sector;
  if (!first || first->addr == moved_to) return;
  findings.Add(ProblemId::FIRST_SLOT_PLACE, first->line,
               "IMAGE 0 is " + At(first->addr) + ", not at 3 sectors, " + HexText(moved_to));
}

/// Follows the erases of one burn, sector by sector. `needed`: what they must spare besides what
/// the burn itself has written.
void CheckErasesOf(const Sequence& sequence, const std::vector<const Sequence*>& needed,
                   std::uint32_t sector, LineFindings& findings) {
  std::optional<std::uint64_t> last;  // the sector that was erased last
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    const Region& region = sequence[i];
    if (region.from == region.end) continue;
    const std::uint64_t first_sector = region.from / sector;
    const std::uint64_t last_sector = (region.end - 1) / sector;
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

void CheckFlashEnd(const CheckedImage& image, std::uint32_t flash_size, LineFindings& findings) {
  for (const Region& region : image.regions) {
    if (region.from == region.end || region.end <= flash_size) continue;
    findings.Add(ProblemId::PAST_FLASH, region.section->line,
                 Name(*region.section) + ", burnt " + At(region.from) + ", ends " + At(region.end) +
                     ", past the " + HexText(flash_size) + " bytes of the flash");
  }
}

}  // namespace

void CheckFlash(const CheckedImage& image, std::optional<std::uint32_t> flash_size,
                LineFindings& findings) {
  if (image.kind == SlotKind::POINTER_SECTORS) {
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx)
      CheckPointerSector(image, idx, findings);
    CheckInvariantOrder(image, findings);
    CheckMarker(image, findings);
    CheckInvariantPlaces(image, findings);
    CheckFirstSlot(image, findings);
  }
  CheckErases(image, findings);
  if (flash_size) CheckFlashEnd(image, *flash_size, findings);
}

}  // namespace fwimg
