#include "verify/ComparedRegion.h"

#include <algorithm>

namespace verify {

std::size_t ComparedRegion::CountDifferences() const {
  std::size_t count = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] != found[i]) ++count;
  }
  return count;
}

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

std::size_t CountDifferences(std::span<const ComparedRegion> regions) {
  std::size_t count = 0;
  for (const ComparedRegion& region : regions) count += region.CountDifferences();
  return count;
}

}  // namespace verify
