/// Simulated devices as the judge knows them, and images that they are filled with.
#pragma once

#include <stdexcept>
#include <string>

#include "device/Burn.h"
#include "device/Image.h"
#include "sim/Fabric.h"

namespace sim {

/// A device cannot be filled with an image.
class FillError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

device::Identity IdentityOf(const Device& device);

/// Bytes of a sector; 0 for EEPROMs.
std::uint32_t SectorSizeOf(const Device& device);

/// The device's chips end to end, as the image's device map has them; a chip that the device lacks,
/// or an end that it lacks, reads as erased.
device::Memory MemoryOf(const Device& device, const device::Image& image);

/// Fills a device with an image file. Throws FillError, for a file that cannot be read, too.
void FillFromFile(Fabric& fabric, Guid guid, const std::string& image_file,
                  const device::FillPart& part);

}  // namespace sim
