/// The text of random image files.
#pragma once

#include <cstdint>
#include <string>

#include "trials/soak/RandomImage.h"

namespace soak {

/// Where an address lies. Past the device map it lies behind the end of the last chip.
device::ChipPlace PlaceOf(const Image& image, std::uint32_t addr);

/// The file. The same image can be written in many ways.
std::string TextOf(const RandomImage& image, Random& random);

}  // namespace soak
