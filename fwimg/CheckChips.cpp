#include "fwimg/CheckChips.h"

#include "device/Boot.h"

namespace fwimg {

namespace {

/// A chip of the device map, and the addresses that it gets there.
struct MappedExtent : Extent {
  const ChipLine* chip;
};

/// Without the chips of no bytes.
std::vector<MappedExtent> MappedExtents(const device::ImageFile& file) {
  std::vector<MappedExtent> extents;
  std::uint64_t end = 0;
  for (const ChipLine& chip : file.chips) {
    if (chip.size != 0) extents.push_back({{end, end + chip.size}, &chip});
    end += chip.size;
  }
  return extents;
}

std::string Device(const ChipLine& chip) { return "device " + HexText(chip.chip); }

/// The chip that bytes go on past; null where they lie in one, or past all.
const MappedExtent* GoesOnPast(const std::vector<MappedExtent>& chips, const Extent& bytes) {
  for (std::size_t i = 0; i + 1 < chips.size(); ++i) {
    if (bytes.from < chips[i].end && chips[i].end < bytes.end) return &chips[i];
  }
  return nullptr;
}

/// Requests to a flash name chip 0; the bytes of a map's first chip keep their addresses.
void CheckFlashMap(const CheckedImage& image, const std::vector<MappedExtent>& chips,
                   LineFindings& findings) {
  for (std::size_t i = 0; i < chips.size(); ++i) {
    const MappedExtent& chip = chips[i];
    if (i == 0 && chip.chip->chip == 0) continue;
    const auto is_there = [&](const Extent& bytes) { return bytes.Overlaps(chip); };
    // A failsafe burn asks for the marker, whatever the image holds.
    const Extent marker{device::FAILSAFE_MARKER, device::FAILSAFE_MARKER + WORD_SIZE};
    const bool is_used = std::ranges::any_of(image.regions, is_there) ||
                         (image.kind == SlotKind::POINTER_SECTORS && is_there(marker));
    if (!is_used) continue;
    findings.Add(ProblemId::FLASH_DEVICE, chip.chip->line,
                 "the addresses " + HexText(chip.from) + " to " + HexText(chip.end) +
                     " are mapped to " + Device(*chip.chip) + " from offset 0 on; a flash is " +
                     "device 0, in which they are offsets themselves");
  }
}

void CheckSlotsOnMap(const CheckedImage& image, const std::vector<MappedExtent>& chips,
                     LineFindings& findings) {
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const AddrLine& addr = *image.file.slots[idx].image;
    const Extent record{addr.addr, addr.addr + std::uint64_t{device::BOOT_RECORD_SIZE}};
    if (const MappedExtent* chip = GoesOnPast(chips, record)) {
      findings.Add(ProblemId::RECORD_CROSSES_DEVICE, addr.line,
                   Text("the boot record of slot ", idx, ", ", HexText(record.from), " to ",
                        HexText(record.end), ", goes on past ", Device(*chip->chip),
                        ", which ends ", At(chip->end)));
    }
    const Extent slot{addr.addr, addr.addr + image.slot_extent};
    if (const MappedExtent* chip = GoesOnPast(chips, slot)) {
      findings.Add(
          ProblemId::SLOT_CROSSES_DEVICE, addr.line,
          Text("the image of slot ", idx, ", ", HexText(slot.from), " to ", HexText(slot.end),
               ", goes on past ", Device(*chip->chip), ", which ends ", At(chip->end)));
    }
  }
}

void CheckChunks(const CheckedImage& image, const std::vector<MappedExtent>& chips,
                 LineFindings& findings) {
  const std::uint32_t chunk = image.target.ChunkSize();
  const std::string what = Text("a chunk of ", HexText(chunk), " bytes (-m ",
                                image.target.log2_chunk, ") is larger than ");
  if (image.is_flash) {
    if (chunk <= image.sector) return;
    findings.Add(ProblemId::CHUNK_TOO_LARGE, image.file.device_type_line,
                 what + "a sector of the flash, which has " + HexText(image.sector));
    return;
  }
  for (const MappedExtent& chip : chips) {
    if (chunk <= chip.chip->size) continue;
    findings.Add(ProblemId::CHUNK_TOO_LARGE, chip.chip->line,
                 what + Device(*chip.chip) + ", which has " + HexText(chip.chip->size));
  }
  if (!image.target.eeproms || image.file.image.type == nullptr) return;
  for (const auto& [address, size] : *image.target.eeproms) {
    if (chunk <= size) continue;
    findings.Add(
        ProblemId::CHUNK_TOO_LARGE, image.file.device_type_line,
        what + "the EEPROM " + HexText(address) + " of the device, which has " + HexText(size));
  }
}

/// Regions against the EEPROMs that the device has.
void CheckEeproms(const CheckedImage& image, const std::vector<MappedExtent>& chips,
                  LineFindings& findings) {
  const auto look = [&](const Region& region, const Extent& bytes, std::uint8_t chip,
                        std::uint64_t offset) {
    const auto found = image.target.eeproms->find(chip);
    const std::uint64_t size = found == image.target.eeproms->end() ? 0 : found->second;
    const std::uint64_t end = offset + (bytes.end - bytes.from);
    if (end <= size) return;
    findings.Add(ProblemId::PAST_EEPROM, region.section->line, [&] {
      return Name(*region.section) + ", burnt " + At(region.from) + ", has bytes up to offset " +
             HexText(end) + " of EEPROM " + HexText(chip) +
             (size == 0 ? ", which the device does not have"
                        : ", which has " + HexText(size) + " bytes");
    });
  };
  for (const Region& region : image.regions) {
    if (region.from == region.end) continue;
    if (image.file.chips.empty()) look(region, region, 0, region.from);
    for (const MappedExtent& chip : chips) {
      if (!region.Overlaps(chip)) continue;
      const Extent part{std::max(region.from, chip.from), std::min(region.end, chip.end)};
      look(region, part, chip.chip->chip, part.from - chip.from);
    }
  }
}

}  // namespace

void CheckChips(const CheckedImage& image, LineFindings& findings) {
  const std::vector<MappedExtent> chips = MappedExtents(image.file);
  CheckChunks(image, chips, findings);
  if (image.is_flash) {
    CheckFlashMap(image, chips, findings);
    return;
  }
  if (image.kind == SlotKind::BOOT_RECORDS && image.has_slots) {
    CheckSlotsOnMap(image, chips, findings);
  }
  if (image.target.eeproms && image.file.image.type != nullptr) {
    CheckEeproms(image, chips, findings);
  }
}

}  // namespace fwimg
