#include "fwimg/CheckStructure.h"

#include <map>

namespace fwimg {

namespace {

void CheckDeviceType(const CheckedImage& image, LineFindings& findings) {
  const LineNumber line = image.file.device_type_line;
  if (line == 0) {
    findings.Add(ProblemId::NO_DEVICE_TYPE, 0, "no DEVICE_TYPE");
  } else if (image.file.image.type == nullptr) {
    findings.Add(ProblemId::UNKNOWN_DEVICE_TYPE, line,
                 "unknown device type \"" + Printable(image.file.device_type_word) + "\"");
  }
  const device::DeviceType* type = image.file.image.type;
  if (type == nullptr || type->has_bsn) return;
  for (const FieldLine& field : image.file.fields) {
    if (field.type != device::FieldType::BSN) continue;
    findings.Add(ProblemId::DEVICE_TYPE_LATE, field.line,
                 Text("REPLACE BSN stands before DEVICE_TYPE ", type->keyword, " on ", Line(line)));
  }
}

void CheckLocations(const device::ImageFile& file, LineFindings& findings) {
  const auto& chips = file.chips;
  for (const device::LocationLine& location : file.locations) {
    const std::string chip = "device " + HexText(location.place.chip);
    const auto mapped = std::ranges::find(chips, location.place.chip, &ChipLine::chip);
    if (mapped == chips.end()) {
      // Refused already, unless there was no map yet.
      if (chips.empty() || !location.addr) continue;
      findings.Add(ProblemId::DEVMAP_LATE, location.line,
                   "the location stands before the first DEVMAP, so that it means " +
                       HexText(*location.addr) + "; no DEVMAP has its " + chip);
      continue;
    }
    if (mapped->addr + location.place.offset != location.addr) {
      findings.Add(ProblemId::DEVMAP_LATE, location.line,
                   "the DEVMAP of " + chip + " stands after this location, which needs it");
    }
    if (location.place.offset >= mapped->size) {
      findings.Add(ProblemId::PAST_DEVICE, location.line,
                   "offset " + HexText(location.place.offset) + " lies past the " +
                       HexText(mapped->size) + " bytes of " + chip);
    }
  }
}

/// Regions against the ends of the mapped devices; `total` is where the last one ends.
void CheckRegionsOnMap(const CheckedImage& image, std::uint64_t total, LineFindings& findings) {
  for (const SectionLines* section : image.kept) {
    if (section->End() <= total) continue;
    findings.Add(ProblemId::PAST_MAP, section->line,
                 Name(*section) + " ends " + At(section->End()) + ", past the " + HexText(total) +
                     " bytes of the device map");
  }
  if (image.has_slots) {
    const AddrLine& second = *image.file.slots[1].image;
    const std::uint64_t end = second.addr + image.slot_extent;
    if (end > total) {
      findings.Add(ProblemId::PAST_MAP, second.line,
                   "the second slot's image ends " + At(end) + ", past the " + HexText(total) +
                       " bytes of the device map");
    }
  }
  const std::uint32_t chunk = image.target.ChunkSize();
  std::uint64_t end = 0;
  for (const ChipLine& chip : image.file.chips) {
    end += chip.size;
    if (end % chunk == 0 || end == total) continue;
    for (const Region& region : image.regions) {
      if (region.from >= end || end >= region.end) continue;
      findings.Add(ProblemId::CHUNK_CROSSES_DEVICE, region.section->line, [&] {
        return Name(*region.section) + ", burnt " + At(region.from) + " to " + HexText(region.end) +
               ", goes on past device " + HexText(chip.chip) + ", which ends " + At(end) +
               ", no multiple of a chunk of " + HexText(chunk) + " bytes";
      });
    }
  }
}

void CheckMap(const CheckedImage& image, LineFindings& findings) {
  const auto& chips = image.file.chips;
  std::uint64_t total = 0;
  std::map<std::uint8_t, LineNumber> seen;
  for (const ChipLine& chip : chips) {
    const auto [first, is_new] = seen.try_emplace(chip.chip, chip.line);
    if (!is_new) {
      findings.Add(
          ProblemId::DEVMAP_TWICE, chip.line,
          "device " + HexText(chip.chip) + " is mapped on " + Line(first->second) + " already");
    }
    if (chip.size == 0) {
      findings.Add(ProblemId::DEVMAP_EMPTY, chip.line, "the device has no bytes");
    }
    if (total <= ADDRESS_SPACE && total + chip.size > ADDRESS_SPACE) {
      findings.Add(ProblemId::DEVMAP_WRAPS, chip.line, "the mapped devices have more than 4 GiB");
    }
    total += chip.size;
  }
  CheckLocations(image.file, findings);
  if (!chips.empty()) CheckRegionsOnMap(image, total, findings);
}

void CheckOverlaps(const CheckedImage& image, LineFindings& findings) {
  std::vector<const SectionLines*> sections = image.kept;
  std::ranges::stable_sort(sections, {}, &SectionLines::addr);
  const SectionLines* furthest = nullptr;
  for (const SectionLines* section : sections) {
    if (furthest != nullptr && section->addr < furthest->End() && section->size > 0) {
      const SectionLines& later = section->line > furthest->line ? *section : *furthest;
      const SectionLines& other = section->line > furthest->line ? *furthest : *section;
      findings.Add(ProblemId::SECTION_OVERLAP, later.line,
                   Name(later) + " overlaps " + Name(other) + " of " + Line(other.line) + " from " +
                       HexText(section->addr) + " to " +
                       HexText(std::min(section->End(), furthest->End())));
    }
    if (furthest == nullptr || section->End() > furthest->End()) furthest = section;
  }
}

void CheckSections(const CheckedImage& image, LineFindings& findings) {
  if (image.file.sections.empty()) {
    findings.Add(ProblemId::NO_SECTIONS, 0, "no section");
  } else if (std::ranges::all_of(image.file.sections, [](const SectionLines& section) {
               return section.size == 0 && section.is_whole;
             })) {
    findings.Add(ProblemId::NO_SECTIONS, 0, "no section has bytes");
  }
  for (const SectionLines& section : image.file.sections) {
    if (!section.kept) {
      const SectionLines* first = image.file.SectionAt(section.addr);
      if (section.is_placed && first != nullptr) {
        findings.Add(ProblemId::DUPLICATE_SECTION, section.line,
                     Name(section) + " starts " + At(section.addr) + ", as " + Name(*first) +
                         " of " + Line(first->line) + " does");
      }
      continue;
    }
    if (section.size == 0 && section.is_whole) {
      findings.Add(ProblemId::SECTION_EMPTY, section.line, Name(section) + " has no bytes");
    }
    if (section.addr % WORD_SIZE != 0) {
      findings.Add(ProblemId::NOT_WORD_ALIGNED, section.line,
                   Name(section) + " starts " + At(section.addr) + ", which is no word's address");
    }
  }
  CheckOverlaps(image, findings);
}

}  // namespace

void CheckStructure(const CheckedImage& image, LineFindings& findings) {
  CheckDeviceType(image, findings);
  CheckMap(image, findings);
  CheckSections(image, findings);
}

}  // namespace fwimg
