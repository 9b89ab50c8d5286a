/// Makes image files: from a layout, and the raw bytes that it names.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "fwimg/Layout.h"

namespace fwimg {

/// Fills in the boot records and CRC words that are to be, as far as they have a place.
void FillIn(Layout& layout);

/// Writes the image file of a layout that CheckLayout takes. It gets its name only when `fwimg
/// check` finds no error in it, and it was loaded back and says what it should. A layout without a
/// device type is not checked for one. Returns the warnings of the check, with their lines of the
/// layout. Throws LayoutError, with all errors, or std::runtime_error.
std::vector<std::string> WriteImage(const Layout& layout, const std::filesystem::path& path);

}  // namespace fwimg
