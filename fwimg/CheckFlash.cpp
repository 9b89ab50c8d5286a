// The order of writes and erases of a flash is computed a second time here, from the lines of an
// image file; device/Burn.cpp computes it for the judge.
#include "fwimg/CheckFlash.h"

#include "device/Boot.h"
#include "device/Burn.h"
#include "device/Crc.h"
#include "fwimg/BurntParts.h"

namespace fwimg {

namespace {

constexpr Extent MARKER{device::FAILSAFE_MARKER, device::FAILSAFE_MARKER + WORD_SIZE};

Bytes Signature() { return device::WordBytes(device::VALID_SIGNATURE); }

bool IsCrcMarked(const CheckedImage& image, const SectionLines& ps) {
  return std::ranges::any_of(image.file.crcs, [&](const CrcLine& crc) {
    return crc.from == ps.addr && crc.size == device::RECORD_CRC &&
           crc.addr == ps.addr + device::RECORD_CRC;
  });
}

/// The record of a slot as its burn leaves it on a device of whose own values each byte is `own`.
/// As the file has it, with the signature set and the CRC computed, where no burn comes to its end,
/// or the slot's image is burnt over it, which is a kind of its own.
std::optional<Bytes> RecordOf(const CheckedImage& image, std::uint32_t idx, const SectionLines& ps,
                              std::uint8_t own) {
  const auto is_over = [&](const Region& region) { return region.Overlaps(ExtentOf(ps)); };
  if (image.has_slots && std::ranges::none_of(image.images[idx], is_over)) {
    BurntParts flash(image);
    flash.Add(ps.addr, device::POINTER_RECORD_SIZE);
    if (flash.Burn(device::BurnKind::FAILSAFE, {.slots = {idx}}, own)) return flash.Part(0);
  }
  auto record = image.file.BytesAt(ps.addr, device::POINTER_RECORD_SIZE);
  if (!record) return std::nullopt;
  std::ranges::copy(Signature(), record->begin() + device::RECORD_SIGNATURE);
  if (IsCrcMarked(image, ps)) {
    const View covered = View(*record).first(device::RECORD_CRC);
    std::ranges::copy(device::WordBytes(device::CrcOf(covered)),
                      record->begin() + device::RECORD_CRC);
  }
  return record;
}

/// Boot code looks at the record that is burnt, whatever the file has there. Returns whether it is
/// right.
bool CheckRecord(const CheckedImage& image, std::uint32_t idx, const SectionLines& ps,
                 const Bytes& record, LineFindings& findings) {
  const SlotLines& slot = image.file.slots[idx];
  const std::uint32_t image_addr = device::WordAt(record, device::RECORD_ADDR);
  bool is_right = true;
  const auto add = [&](ProblemId id, const std::string& text) {
    findings.Add(id, ps.line, text);
    is_right = false;
  };
  if (slot.image && image_addr != slot.image->addr) {
    add(ProblemId::PS_RECORD, Text(Name(ps), " points to ", HexText(image_addr), "; IMAGE ", idx,
                                   " is ", At(slot.image->addr)));
  }
  const std::uint32_t size = device::WordAt(record, device::RECORD_IMAGE_SIZE);
  if (image.has_slots && size != image.slot_extent) {
    add(size < image.slot_extent ? ProblemId::PS_SIZE : ProblemId::PS_SIZE_LARGE,
        Text(Name(ps), " gives the image ", HexText(size), " bytes; it has ",
             HexText(image.slot_extent)));
  }
  const auto flash_size = image.target.flash_size;
  if (flash_size && std::uint64_t{image_addr} + size > *flash_size) {
    add(ProblemId::PS_PAST_FLASH,
        Text(Name(ps), " gives an image of ", HexText(size), " bytes at ", HexText(image_addr),
             ", past the ", HexText(*flash_size), " bytes of the flash"));
  }
  const std::uint32_t crc = device::CrcOf(View(record).first(device::RECORD_CRC));
  if (device::WordAt(record, device::RECORD_CRC) != crc) {
    add(ProblemId::PS_CRC,
        IsCrcMarked(image, ps)
            ? "the CRC over the record of " + Name(ps) + " does not fit the record once it is burnt"
            : "no CRC is marked over the record of " + Name(ps) +
                  ", and the one it has does not fit the record once it is signed");
  }
  return is_right;
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
  // Zeros, and others: a device's own value may happen to be right.
  for (const std::uint8_t own : {std::uint8_t{0}, std::uint8_t{0x5A}}) {
    const auto record = RecordOf(image, idx, *ps, own);
    if (record && !CheckRecord(image, idx, *ps, *record, findings)) break;
  }
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

/// A section in the first sector erases the marker there, wherever it ends itself.
void CheckMarker(const CheckedImage& image, LineFindings& findings) {
  const SectionLines* first = nullptr;
  for (const SectionLines* section : image.kept) {
    if (section->addr >= image.sector || section->size == 0) continue;
    if (!section->is_whole) return;
    if (first == nullptr || section->addr < first->addr) first = section;
  }
  if (first == nullptr) return;
  const auto marker = image.file.BytesAt(MARKER.from, WORD_SIZE);
  if (marker == Signature()) return;
  const SectionLines* over = image.SectionOver(MARKER.from);
  if (marker) {
    findings.Add(ProblemId::MARKER_MISSING, over->line,
                 Name(*over) + " has no failsafe marker CB 84 CB 84 at 0x24");
  } else {
    findings.Add(ProblemId::MARKER_MISSING, (over == nullptr ? first : over)->line,
                 Name(*first) + " " + At(first->addr) +
                     " lies in the invariant sector, but no section has all bytes of the failsafe "
                     "marker at 0x24 to 0x28");
  }
}

/// Whether a burn puts bytes there that depend on the device, or a kind of its own tells of them.
bool MayDiffer(const CheckedImage& image, std::uint64_t addr) {
  const Extent byte{addr, addr + 1};
  const auto is_own = [](const device::Field& field) { return field.type != FieldType::SIGNATURE; };
  const auto depends = [&](const CrcLine& crc) {
    return PlaceOf(crc).Overlaps(byte) &&
           std::ranges::any_of(image.file.fields, [&](const FieldLine& field) {
             return is_own(field) && ExtentOf(field).Overlaps(CoveredBy(crc));
           });
  };
  return MARKER.Overlaps(byte) || std::ranges::any_of(image.file.crcs, depends) ||
         std::ranges::any_of(image.file.fields, [&](const FieldLine& field) {
           return is_own(field) && ExtentOf(field).Overlaps(byte);
         });
}

/// A burn compares the invariant sector with the file, byte for byte, and rewrites it where they
/// differ: what it leaves there must be what the file has.
void CheckInvariantContents(const CheckedImage& image, LineFindings& findings) {
  std::vector<const SectionLines*> sections;
  for (const Region& region : image.invariant) {
    if (!region.section->is_whole) return;
    sections.push_back(region.section);
  }
  BurntParts flash(image);
  for (const SectionLines* section : sections) {
    flash.Add(section->addr, static_cast<std::size_t>(section->size));
  }
  if (!flash.Burn(device::BurnKind::FAILSAFE, {.rewrites_invariant = true})) return;
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const View shipped = image.file.DataOf(*sections[i]);
    const View burnt = flash.Part(i);
    for (std::size_t at = 0; at < shipped.size(); ++at) {
      const std::uint64_t addr = sections[i]->addr + std::uint64_t{at};
      if (shipped[at] == burnt[at] || MayDiffer(image, addr)) continue;
      const auto crc = std::ranges::find_if(image.file.crcs, [&](const CrcLine& line) {
        return PlaceOf(line).Overlaps({addr, addr + 1});
      });
      findings.Add(ProblemId::INVARIANT_CHANGES,
                   crc == image.file.crcs.end() ? sections[i]->line : crc->line,
                   Name(*sections[i]) + " has " + HexText(shipped[at]) + " " + At(addr) +
                       ", where a burn leaves " + HexText(burnt[at]));
      break;
    }
  }
}

/// A burn with -n writes the signatures as they are shipped.
void CheckPlainBurnBoots(const CheckedImage& image, LineFindings& findings) {
  if (!image.has_slots) return;
  BurntParts flash(image);
  for (const SlotLines& slot : image.file.slots) {
    const SectionLines* ps = image.file.SectionAt(slot.pointer_sector->addr);
    if (ps == nullptr || !ps->is_whole) return;  // is told already
    flash.Add(ps->addr, device::POINTER_RECORD_SIZE);
  }
  if (!flash.Burn(device::BurnKind::PLAIN, {})) return;
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    if (device::RecordBoots(image.kind, idx, flash.Part(idx))) return;
  }
  findings.Add(ProblemId::NONE_SHIPPED_SIGNED, image.file.slots[0].pointer_sector->line,
               "neither pointer sector is shipped with a valid signature and a CRC that fits");
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

/// The sectors that are erased for one region, chunk by chunk. `last`: where the erase before it
/// began, of which the burner remembers no more than that. Returns where it cannot erase.
std::optional<std::uint64_t> FollowErases(const Region& region, std::uint32_t sector,
                                          std::uint32_t chunk, std::optional<std::uint64_t>& last,
                                          std::vector<Extent>& erased) {
  const std::uint64_t step =
      sector % chunk == 0 ? sector : chunk;  // no chunk needs a look of its own
  for (std::uint64_t at = region.from; at < region.end;) {
    const std::uint64_t end = std::min(region.end, (at / step + 1) * step);
    const std::uint64_t first = at / sector;
    const std::uint64_t behind = (end - 1) / sector + 1;
    if (last != first || behind != first + 1) {
      if (at % sector != 0) return at;
      erased.push_back({at, behind * sector});
      last = first;
    }
    at = end;
  }
  return std::nullopt;
}

/// Follows the erases of one burn, sector by sector. `needed`: what they must spare besides what
/// the burn itself has written.
void CheckErasesOf(const Sequence& sequence, const std::vector<const Sequence*>& needed,
                   const CheckedImage& image, LineFindings& findings) {
  std::optional<std::uint64_t> last;
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    const Region& region = sequence[i];
    if (region.from == region.end) continue;
    std::vector<Extent> erased;
    const auto stuck = FollowErases(region, image.sector, image.target.ChunkSize(), last, erased);
    if (stuck) {
      last = (region.end - 1) / image.sector;  // so that what follows it is told of by itself
      findings.Add(ProblemId::ERASE_UNALIGNED, region.section->line, [&] {
        return Name(*region.section) + ", burnt " + At(region.from) + ", " +
               (*stuck == region.from ? "starts"
                                      : "goes on " + At(*stuck) + " in a new chunk, and starts") +
               " no sector of " + HexText(image.sector) + " bytes";
      });
      continue;
    }
    const auto spoils = [&](const Region& other) {
      if (other.section == region.section && other.from == region.from) return;
      const bool is_erased =
          std::ranges::any_of(erased, [&](const Extent& extent) { return other.Overlaps(extent); });
      if (!is_erased || other.Overlaps(region)) return;  // that is told as overlap
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
    CheckErasesOf(*sequence, needed, image, findings);
  }
  CheckErasesOf(image.all, {}, image, findings);
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

void CheckFlash(const CheckedImage& image, LineFindings& findings) {
  if (image.kind == SlotKind::POINTER_SECTORS) {
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx)
      CheckPointerSector(image, idx, findings);
    CheckInvariantOrder(image, findings);
    CheckMarker(image, findings);
    CheckInvariantPlaces(image, findings);
    CheckInvariantContents(image, findings);
    CheckPlainBurnBoots(image, findings);
    CheckFirstSlot(image, findings);
  }
  CheckErases(image, findings);
  if (image.target.flash_size) CheckFlashEnd(image, *image.target.flash_size, findings);
}

}  // namespace fwimg
