#include "verify/ComparedRegion.h"

#include <algorithm>

namespace verify {

void AddSection(std::vector<ComparedRegion>& regions, const device::Section& section,
                std::uint32_t destination) {
  const auto is_there = [&](const ComparedRegion& region) { return region.addr == destination; };
  if (std::ranges::any_of(regions, is_there)) return;
  regions.push_back({.section = &section, .addr = destination});
}

void AddSlot(std::vector<ComparedRegion>& regions, const device::Image& image, std::uint32_t slot) {
  const std::uint32_t distance = image.slots[slot].image.value() - image.slots[0].image.value();
  for (const device::Section* section : image.SlotSections()) {
    AddSection(regions, *section, section->addr + distance);
  }
}

}  // namespace verify
