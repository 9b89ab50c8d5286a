/// A simulated device as the code of device/ sees it.
#pragma once

#include "device/Identity.h"
#include "device/Image.h"
#include "device/Memory.h"
#include "sim/Fabric.h"

namespace trials {

device::Identity IdentityOf(const sim::Device& device);
/// The chips end to end, as the image maps them. Each must be at least as large as the map says.
device::Memory MemoryOf(const sim::Device& device, const device::Image& image);
/// Writes a whole memory back, without the rules of the chips: starting contents.
void LoadMemory(sim::Device& device, const device::Image& image, const device::Memory& memory);

}  // namespace trials
