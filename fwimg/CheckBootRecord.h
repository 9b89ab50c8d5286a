#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// The boot record that an image of a device without pointer sectors begins with.
void CheckBootRecord(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
