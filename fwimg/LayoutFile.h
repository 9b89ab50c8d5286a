/// Reads layouts, TOML files that say what stands where in an image.
#pragma once

#include <filesystem>

#include "fwimg/Layout.h"

namespace fwimg {

enum class LayoutKind {
  WHOLE,             ///< with at least one section
  WITHOUT_SECTIONS,  ///< they come from another file
};

/// Reads a layout. The files that it names are looked for in `parts`. Throws LayoutError.
Layout ReadLayout(const std::filesystem::path& file, const std::filesystem::path& parts,
                  LayoutKind kind);

}  // namespace fwimg
