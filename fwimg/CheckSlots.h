#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// Where the slots are, and what of the image lies in them.
void CheckSlots(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
