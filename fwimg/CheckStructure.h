#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// The device type, the device map, and sections among themselves.
void CheckStructure(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
