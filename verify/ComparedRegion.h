/// The parts of a device's memory that are compared with an image.
#pragma once

#include <cstdint>
#include <vector>

#include "device/Bytes.h"
#include "device/Image.h"

namespace verify {

/// Bytes of a device's memory that one section of an image fills.
struct ComparedRegion {
  const device::Section* section = nullptr;  ///< borrowed from the image
  std::uint32_t addr = 0;                    ///< linear, where the burn writes it
  device::Bytes expected{};                  ///< what the burn leaves there; as long as the section

  std::uint64_t End() const { return addr + section->data.size(); }
};

/// Adds a section that is burnt to `destination`, unless there is one with the same destination:
/// burns write only the first of them.
void AddSection(std::vector<ComparedRegion>& regions, const device::Section& section,
                std::uint32_t destination);
/// Adds all sections that a failsafe burn writes to a slot of the image.
void AddSlot(std::vector<ComparedRegion>& regions, const device::Image& image, std::uint32_t slot);

}  // namespace verify
