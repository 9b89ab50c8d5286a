/// Images that a device may have had before, for the search.
#pragma once

#include <cstdint>
#include <optional>

#include "device/Image.h"
#include "trials/soak/Random.h"

namespace search {

/// The image with another size in its pointer sectors' records, which boot all the same.
device::Image WithOtherSizes(device::Image image, soak::Random& random);

/// A shorter image whose second slot begins where `next`, in its first slot, would have bytes: a
/// failsafe burn of `next` moves it first. Its records may give a part of its size. Nothing where
/// `next` has no pointer sectors, or is too small.
std::optional<device::Image> ImageToMove(const device::Image& next, std::uint32_t sector_size,
                                         soak::Random& random);

}  // namespace search
