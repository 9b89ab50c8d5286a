#include "fwimg/CheckSlots.h"

namespace fwimg {

namespace {

void CheckDirectives(const CheckedImage& image, LineFindings& findings) {
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const SlotLines& slot = image.file.slots[idx];
    const auto need = [&](const std::optional<AddrLine>& addr, const char* directive) {
      if (!addr) {
        findings.Add(ProblemId::SLOT_UNSET, image.file.device_type_line,
                     Text("no ", directive, " ", idx, ", which this device type needs"));
      } else if (addr->addr == device::UNSET_ADDR) {
        findings.Add(ProblemId::SLOT_UNSET, addr->line,
                     Text(directive, " ", idx, " is ", HexText(addr->addr),
                          ", which means that it is unset; this device type needs it"));
      }
    };
    need(slot.image, "IMAGE");
    if (image.kind == SlotKind::BOOT_RECORDS) continue;
    need(slot.pointer_sector, "PS");
    need(slot.signature, "SIGNATURE");
  }
}

void CheckImageSections(const CheckedImage& image, LineFindings& findings) {
  const std::uint32_t img0 = image.file.slots[0].image->addr;
  const std::uint32_t img1 = image.file.slots[1].image->addr;
  const auto sections = image.file.SlotSections();
  std::uint64_t bytes = 0;
  for (const SectionLines* section : sections) {
    bytes += section->size;
    if (section->addr < img0 || section->addr >= std::max(img0, img1)) {
      findings.Add(ProblemId::IMAGE_SECTION_OUTSIDE, section->line,
                   Name(*section) + " " + At(section->addr) +
                       " stands after the first image section, " +
                       "but does not lie between the slots");
    } else if (section->End() > img1) {
      findings.Add(ProblemId::SLOTS_OVERLAP, section->line,
                   Name(*section) + " reaches to " + HexText(section->End()) +
                       ", into the second slot " + At(img1));
    }
  }
  if (image.kind == SlotKind::POINTER_SECTORS && bytes < image.slot_extent) {
    findings.Add(ProblemId::IMAGE_GAPS, sections.front()->line,
                 Text("the image has gaps: ", bytes, " bytes within ", image.slot_extent));
  }
}

std::string Where(const Region& region) {
  return Name(*region.section) + ", burnt " + At(region.from) + " to " + HexText(region.end);
}

/// Burns of which each must leave alone what the others have written.
void CheckSequencesApart(const CheckedImage& image, LineFindings& findings) {
  const auto sequences = image.Failsafe();
  for (std::size_t i = 0; i < sequences.size(); ++i) {
    for (std::size_t j = i + 1; j < sequences.size(); ++j) {
      for (const Region& a : *sequences[i]) {
        for (const Region& b : *sequences[j]) {
          if (!a.Overlaps(b)) continue;
          findings.Add(ProblemId::SLOTS_OVERLAP, b.section->line,
                       [&] { return Where(b) + ", overlaps " + Where(a); });
        }
      }
    }
  }
}

/// The image of a slot, moved, against the slot's own pointer sector, which is not. Image sections
/// among themselves overlap in the file, too.
void CheckPointerSectorsApart(const CheckedImage& image, LineFindings& findings) {
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    if (image.burnt[idx].size() == image.images[idx].size()) continue;
    const Region& ps = image.burnt[idx].back();
    for (const Region& region : image.images[idx]) {
      if (!region.Overlaps(ps)) continue;
      findings.Add(ProblemId::PS_IN_IMAGE, image.file.slots[idx].pointer_sector->line, [&] {
        return Text("the pointer sector ", At(ps.from), " to ", HexText(ps.end), " lies in the ",
                    "image of slot ", idx, ": ", Where(region));
      });
    }
  }
}

/// What a slot's burn writes or erases around `region`.
Extent Touched(const CheckedImage& image, const Region& region) {
  if (!image.is_flash || region.from == region.end) return region;
  return {region.from / image.sector * image.sector,
          ((region.end - 1) / image.sector + 1) * image.sector};
}

/// Whether a burn fills these bytes itself.
bool IsMarked(const CheckedImage& image, std::uint64_t addr) {
  const Extent byte{addr, addr + 1};
  return std::ranges::any_of(
             image.file.fields,
             [&](const FieldLine& field) { return ExtentOf(field).Overlaps(byte); }) ||
         std::ranges::any_of(image.file.crcs,
                             [&](const CrcLine& crc) { return PlaceOf(crc).Overlaps(byte); });
}

/// Whether the burn of slot `idx` leaves every byte of a section as the section has it.
bool IsLeftAsItIs(const CheckedImage& image, std::uint32_t idx, const SectionLines& section) {
  const View data = image.file.DataOf(section);
  std::vector<bool> is_written(data.size());
  for (const Region& region : image.burnt[idx]) {
    const View burnt = image.file.DataOf(*region.section);
    const std::uint64_t end = std::min(region.end, section.End());
    for (std::uint64_t at = std::max<std::uint64_t>(region.from, section.addr); at < end; ++at) {
      const auto in_section = static_cast<std::size_t>(at - section.addr);
      const bool is_same = data[in_section] == burnt[static_cast<std::size_t>(at - region.from)];
      if (!is_same && !IsMarked(image, at)) return false;
      is_written[in_section] = true;
    }
  }
  // What is erased along with it.
  for (const Region& region : image.burnt[idx]) {
    const Extent touched = Touched(image, region);
    const std::uint64_t end = std::min(touched.end, section.End());
    for (std::uint64_t at = std::max<std::uint64_t>(touched.from, section.addr); at < end; ++at) {
      const auto in_section = static_cast<std::size_t>(at - section.addr);
      if (!is_written[in_section] && data[in_section] != device::ERASED) return false;
    }
  }
  return true;
}

/// Sections that no failsafe burn writes.
void CheckLeftOut(const CheckedImage& image, LineFindings& findings) {
  for (const SectionLines* section : image.kept) {
    const auto is_of = [&](const Sequence* sequence) {
      return std::ranges::find(*sequence, section, &Region::section) != sequence->end();
    };
    if (std::ranges::any_of(image.Failsafe(), is_of)) continue;
    const auto destroys = [&](const Region& region) {
      return Touched(image, region).Overlaps(ExtentOf(*section));
    };
    bool is_touched = false;
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
      const auto found = std::ranges::find_if(image.burnt[idx], destroys);
      if (found == image.burnt[idx].end()) continue;
      is_touched = true;
      if (IsLeftAsItIs(image, idx, *section)) continue;
      findings.Add(
          ProblemId::SECTION_IN_SLOT, section->line,
          Text(Name(*section), " ", At(section->addr), " to ", HexText(section->End()),
               " lies in what a burn of slot ", idx, " writes or erases: ", Where(*found)));
    }
    const bool is_misplaced =  // a kind of its own
        image.kind == SlotKind::POINTER_SECTORS && section->addr < image.sector;
    if (is_touched || is_misplaced) continue;
    const bool is_pointer_sector =
        std::ranges::any_of(image.file.slots, [&](const SlotLines& slot) {
          return slot.pointer_sector && slot.pointer_sector->addr == section->addr;
        });
    if (!is_pointer_sector && image.file.slots[0].image->addr <= section->addr &&
        section->addr < image.file.slots[1].image->addr) {
      findings.Add(ProblemId::IMAGE_SECTION_LEFT_OUT, section->line,
                   Name(*section) + " " + At(section->addr) +
                       " lies between the slots, but stands before the first image section, or "
                       "after one " +
                       At(image.file.slots[1].image->addr));
    } else {
      findings.Add(ProblemId::SECTION_NOT_BURNT, section->line,
                   Name(*section) + " belongs to no slot");
    }
  }
}

/// Without a device map, which has an end of its own, addresses end at 4 GiB.
void CheckEnds(const CheckedImage& image, LineFindings& findings) {
  const AddrLine& second = *image.file.slots[1].image;
  const std::uint64_t end = second.addr + image.slot_extent;
  if (end <= ADDRESS_SPACE || !image.file.chips.empty()) return;
  findings.Add(ProblemId::SLOT_WRAPS, second.line,
               "the second slot's image would end " + At(end) + ", past the last address");
}

}  // namespace

void CheckSlots(const CheckedImage& image, LineFindings& findings) {
  if (image.kind != SlotKind::POINTER_SECTORS && image.kind != SlotKind::BOOT_RECORDS) return;
  CheckDirectives(image, findings);
  if (!image.file.image.slots[0].image || !image.file.image.slots[1].image) return;
  const auto& slots = image.file.slots;
  const std::uint32_t img0 = slots[0].image->addr;
  const std::uint32_t img1 = slots[1].image->addr;
  if (img1 <= img0) {
    findings.Add(ProblemId::SLOT_ORDER, slots[1].image->line,
                 "IMAGE 1 " + At(img1) + " does not lie behind IMAGE 0 " + At(img0));
  }
  if (image.file.SectionAt(img0) == nullptr) {
    findings.Add(ProblemId::NO_FIRST_SECTION, slots[0].image->line,
                 "no section starts at IMAGE 0, " + HexText(img0));
  }
  CheckImageSections(image, findings);
  if (!image.has_slots) return;
  CheckSequencesApart(image, findings);
  CheckPointerSectorsApart(image, findings);
  CheckLeftOut(image, findings);
  CheckEnds(image, findings);
}

}  // namespace fwimg
