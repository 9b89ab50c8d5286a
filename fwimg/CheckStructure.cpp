#include <map>

#include "fwimg/CheckedImage.h"
#include "src/BraidGeneral.h"

namespace tools {

namespace {

/// The greatest chunk of a burn, unless its -m says otherwise. Chunks begin at its multiples.
constexpr u_int32_t CHUNK_SIZE = 32;

void CheckDeviceType(const CheckedImage& image, LineFindings& findings) {
  const LineNumber line = image.view.DeviceTypeLine();
  if (line == 0) {
    findings.Add(ProblemId::NO_DEVICE_TYPE, 0, "no DEVICE_TYPE");
  } else if (image.family == Family::UNKNOWN) {
    findings.Add(ProblemId::UNKNOWN_DEVICE_TYPE, line,
                 "unknown device type \"" + Printable(image.view.DeviceTypeWord()) + "\"");
  }
  if (image.view.Image().DevType() != RV61100) return;
  for (const FieldView& field : image.view.Fields()) {
    if (field.type != BSN) continue;
    findings.Add(ProblemId::DEVICE_TYPE_LATE, field.line,
                 "REPLACE BSN stands before DEVICE_TYPE RV61100 on " + Line(line));
  }
}

void CheckLocations(const ImageView& view, LineFindings& findings) {
  const auto& devices = view.Devices();
  for (const Location& location : view.Locations()) {
    const std::string device = "device " + HexText(location.loc.dev);
    const auto mapped = std::ranges::find(devices, location.loc.dev, &MappedDevice::dev);
    if (mapped == devices.end()) {
      // Refused already, unless there was no map yet.
      if (devices.empty() || !location.addr) continue;
      findings.Add(ProblemId::DEVMAP_LATE, location.line,
                   "the location stands before the first DEVMAP, so that it means " +
                       HexText(*location.addr) + "; no DEVMAP has its " + device);
      continue;
    }
    if (mapped->addr + location.loc.offset != location.addr) {
      findings.Add(ProblemId::DEVMAP_LATE, location.line,
                   "the DEVMAP of " + device + " stands after this location, which needs it");
    }
    if (location.loc.offset >= mapped->size) {
      findings.Add(ProblemId::PAST_DEVICE, location.line,
                   "offset " + HexText(location.loc.offset) + " lies past the " +
                       HexText(mapped->size) + " bytes of " + device);
    }
  }
}

/// Regions against the ends of the mapped devices; `total` is where the last one ends.
void CheckRegionsOnMap(const CheckedImage& image, u_int64_t total, LineFindings& findings) {
  for (const SectionView* section : image.kept) {
    if (section->End() <= total) continue;
    findings.Add(ProblemId::PAST_MAP, section->line,
                 Name(*section) + " ends " + At(section->End()) + ", past the " + HexText(total) +
                     " bytes of the device map");
  }
  if (image.has_slots) {
    const MarkedAddr& second = *image.view.Slots()[1].image;
    const u_int64_t end = second.addr + image.view.ImageExtent();
    if (end > total) {
      findings.Add(ProblemId::PAST_MAP, second.line,
                   "the second slot's image ends " + At(end) + ", past the " + HexText(total) +
                       " bytes of the device map");
    }
  }
  u_int64_t end = 0;
  for (const MappedDevice& device : image.view.Devices()) {
    end += device.size;
    if (end % CHUNK_SIZE == 0 || end == total) continue;
    for (const Region& region : image.regions) {
      if (region.from >= end || end >= region.end) continue;
      findings.Add(ProblemId::CHUNK_CROSSES_DEVICE, region.section->line, [&] {
        return Name(*region.section) + ", burnt " + At(region.from) + " to " + HexText(region.end) +
               ", goes on past device " + HexText(device.dev) + ", which ends " + At(end) +
               ", no multiple of a chunk of " + HexText(CHUNK_SIZE) + " bytes";
      });
    }
  }
}

void CheckMap(const CheckedImage& image, LineFindings& findings) {
  const auto& devices = image.view.Devices();
  u_int64_t total = 0;
  std::map<u_int8_t, LineNumber> seen;
  for (const MappedDevice& device : devices) {
    const auto [first, is_new] = seen.try_emplace(device.dev, device.line);
    if (!is_new) {
      findings.Add(
          ProblemId::DEVMAP_TWICE, device.line,
          "device " + HexText(device.dev) + " is mapped on " + Line(first->second) + " already");
    }
    if (device.size == 0) {
      findings.Add(ProblemId::DEVMAP_EMPTY, device.line, "the device has no bytes");
    }
    if (total <= ADDRESS_SPACE && total + device.size > ADDRESS_SPACE) {
      findings.Add(ProblemId::DEVMAP_WRAPS, device.line, "the mapped devices have more than 4 GiB");
    }
    total += device.size;
  }
  CheckLocations(image.view, findings);
  if (!devices.empty()) CheckRegionsOnMap(image, total, findings);
}

void CheckOverlaps(const CheckedImage& image, LineFindings& findings) {
  std::vector<const SectionView*> sections = image.kept;
  std::ranges::stable_sort(sections, {}, &SectionView::addr);
  const SectionView* furthest = nullptr;
  for (const SectionView* section : sections) {
    if (furthest != nullptr && section->addr < furthest->End() && section->size > 0) {
      const SectionView& later = section->line > furthest->line ? *section : *furthest;
      const SectionView& other = section->line > furthest->line ? *furthest : *section;
      findings.Add(ProblemId::SECTION_OVERLAP, later.line,
                   Name(later) + " overlaps " + Name(other) + " of " + Line(other.line) + " from " +
                       HexText(section->addr) + " to " +
                       HexText(std::min(section->End(), furthest->End())));
    }
    if (furthest == nullptr || section->End() > furthest->End()) furthest = section;
  }
}

void CheckSections(const CheckedImage& image, LineFindings& findings) {
  if (image.view.Sections().empty()) findings.Add(ProblemId::NO_SECTIONS, 0, "no section");
  for (const SectionView& section : image.view.Sections()) {
    if (!section.is_kept) {
      const SectionView* first = image.view.SectionAt(section.addr);
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

}  // namespace tools
