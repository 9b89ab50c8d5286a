/// Conversion of simulated devices for the judge, and filling of devices with images.
#pragma once

#include <stdexcept>
#include <string>

#include "device/Burn.h"
#include "device/Image.h"
#include "device/WriteOrder.h"
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

/// The contents of the device's chips in the order of the image's device map. A missing chip, or
/// the missing end of a smaller one, reads as erased.
device::Memory MemoryOf(const Device& device, const device::Image& image);

/// What the judge is told of an operation: where in the memory that `image` addresses it changes
/// what.
device::MemoryChange ChangeOf(const Operation& operation, const device::Image& image);

/// Sets all cells of a device without the rules of its chips: starting contents. `memory` is what
/// MemoryOf returns; each chip must be as large as the map says.
void LoadMemory(Device& device, const device::Image& image, const device::Memory& memory);

/// Fills a device with an image directly, as the factory does: no request, no faults and no limit
/// of the server. Throws FillError.
void Fill(Fabric& fabric, Guid guid, const device::Image& image, const device::FillPart& part);
/// The same with an image file. Throws FillError, also when the file cannot be read.
void FillFromFile(Fabric& fabric, Guid guid, const std::string& image_file,
                  const device::FillPart& part);

}  // namespace sim
