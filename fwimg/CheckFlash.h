#pragma once

#include <cstdint>
#include <optional>

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// Pointer sectors, the invariant sector, and what erases destroy. `flash_size`: in bytes, where it
/// is known.
void CheckFlash(const CheckedImage& image, std::optional<std::uint32_t> flash_size,
                LineFindings& findings);

}  // namespace fwimg
