#include "fwimg/CheckedImage.h"

#include <utility>

#include "fwimg/ImageFacts.h"

namespace fwimg {

CheckedImage::CheckedImage(const device::ImageFile& checked, const CheckTarget& checked_for)
    : file(checked),
      target(checked_for),
      sector(checked_for.sector_size),
      kind(file.image.Slots()),
      is_flash(IsFlash(file.image)),
      has_slots(HasSlots(file)),
      slot_extent(SlotExtent(file)) {
  for (const SectionLines& section : file.sections) {
    if (section.kept) kept.push_back(&section);
  }
  for (const SectionLines* section : kept) all.push_back({ExtentOf(*section), section});
  if (has_slots) {
    const auto sections = file.SlotSections();
    const std::uint32_t base = sections.front()->addr;
    if (kind == SlotKind::POINTER_SECTORS) {
      const auto is_past = [&](const Region& region) { return region.from >= sector; };
      invariant.assign(all.begin(), std::ranges::find_if(all, is_past));
    }
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
      for (const SectionLines* section : sections) {
        const std::uint32_t to = file.slots[idx].image->addr + (section->addr - base);
        images[idx].push_back({{to, to + section->size}, section});
      }
      burnt[idx] = images[idx];
      if (kind != SlotKind::POINTER_SECTORS) continue;
      const SectionLines* ps = file.SectionAt(file.slots[idx].pointer_sector->addr);
      if (ps != nullptr) burnt[idx].push_back({ExtentOf(*ps), ps});
    }
  }
  regions = all;
  for (const Sequence* sequence : Failsafe()) {
    regions.insert(regions.end(), sequence->begin(), sequence->end());
  }
  const auto key = [](const Region& region) { return std::pair(region.from, region.section); };
  std::ranges::sort(regions, {}, key);
  const auto is_same = [&](const Region& a, const Region& b) { return key(a) == key(b); };
  regions.erase(std::unique(regions.begin(), regions.end(), is_same), regions.end());
}

std::vector<const Sequence*> CheckedImage::Failsafe() const {
  if (!has_slots) return {};
  if (kind == SlotKind::BOOT_RECORDS) return {&burnt[0], &burnt[1]};
  return {&invariant, &burnt[0], &burnt[1]};
}

const SectionLines* CheckedImage::SectionOver(std::uint64_t addr) const {
  for (const SectionLines* section : kept) {
    if (section->addr <= addr && addr < section->End()) return section;
  }
  return nullptr;
}

std::uint32_t CheckedImage::WordAt(std::uint64_t addr) const {
  const auto bytes = file.BytesAt(addr, WORD_SIZE);
  return bytes ? device::WordAt(*bytes, 0) : 0;
}

}  // namespace fwimg
