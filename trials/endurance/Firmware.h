/// Random image files of devices with two slots, written fast: a run burns ten thousands of them.
#pragma once

#include <cstdint>
#include <string>

#include "device/Image.h"
#include "trials/soak/Random.h"

namespace endurance {

using soak::Random;

/// The memory that an image is for.
struct Shape {
  std::uint32_t size = 0;         ///< bytes
  std::uint32_t sector_size = 0;  ///< bytes; 0: an EEPROM, with boot records; else pointer sectors
  std::uint32_t most = 0;         ///< bytes of the firmware

  bool IsFlash() const { return sector_size != 0; }
  bool operator==(const Shape&) const = default;
};

/// An image that boots once it is burnt, with fields of the device's own in both slots. All images
/// of a shape have the same slots and the same invariant sector.
std::string RandomFirmware(const Shape& shape, Random& random);

}  // namespace endurance
