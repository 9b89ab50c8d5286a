#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// What the image's bytes and slots need of the chips that they lie in.
void CheckChips(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
