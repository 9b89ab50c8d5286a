/// What an image means for a burn, where its lines do not say it by themselves.
#pragma once

#include <cstdint>
#include <string>

#include "device/ImageFile.h"

namespace fwimg {

/// Whether the image's device has a serial flash.
bool IsFlash(const device::Image& image);

/// False where every burn of this device type leaves a field's bytes as the image has them.
bool IsReplaced(const device::Image& image, const device::Field& field);

/// Whether each slot has what boot code and burn look at: the addresses, and a first section. Never
/// where the device type has no slots.
bool HasSlots(const device::ImageFile& file);

/// How many bytes a slot takes, gaps included; 0 without slots.
std::uint64_t SlotExtent(const device::ImageFile& file);

/// "1.2.0", the parts that are missing as "?"; "" where no version is given. Fit for a terminal.
std::string FirmwareVersion(const device::ImageFile& file);

}  // namespace fwimg
