#pragma once

#include "fwimg/CheckedImage.h"

namespace fwimg {

/// Fields and CRCs: against sections, each other, and those of the other slot.
void CheckFieldsAndCrcs(const CheckedImage& image, LineFindings& findings);

}  // namespace fwimg
