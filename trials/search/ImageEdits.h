/// Looks for places in images, and changes them.
#pragma once

#include <cstdint>
#include <optional>

#include "device/Image.h"
#include "trials/soak/Random.h"

namespace search {

/// The section that begins at `addr`; null where there is none. Owned by the image.
device::Section* SectionAt(device::Image& image, std::optional<std::uint32_t> addr);

/// One of the addresses of a slot that this sort of image may give.
std::optional<std::uint32_t>& PickAddress(device::Image& image, soak::Random& random);

/// A distance that matters, up or down: a byte, a word, a chunk, a sector, or any.
std::uint32_t Distance(soak::Random& random);

device::Section& PickSection(device::Image& image, soak::Random& random);

/// A place in a section, or just behind it; most are at the beginning of a word.
std::uint32_t PickPlace(const device::Image& image, soak::Random& random);

/// The same place in the other slot; where there is none, this one.
std::uint32_t Mirrored(const device::Image& image, std::uint32_t addr);

/// Stores a big-endian word. False where the section does not have it, or is null.
bool SetWord(device::Section* section, std::uint32_t offset, std::uint32_t value);

/// Stores the CRC that the record of a pointer sector has when its signature is set. The section
/// must hold the record.
void SignRecord(device::Section& section);

}  // namespace search
