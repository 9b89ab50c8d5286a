#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// Pointer sectors, the invariant sector, what erases destroy, and the end of the flash.
void CheckFlash(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
