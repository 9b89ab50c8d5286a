/// Finds everything that is wrong, or likely wrong, with an image file.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fwimg/ImageView.h"
#include "fwimg/ProblemKinds.h"

namespace tools {

struct Problem {
  LineNumber line;  ///< 0: the whole file
  const ProblemKind* kind;
  std::string text;
  std::string_view burn;  ///< what would happen at a burn of this image
};

/// The problems of an image in order of lines, at most some hundred of each kind. `sector_size` and
/// `flash_size`: of the flash that it is for, in bytes, more than 0; no matter to an EEPROM.
std::vector<Problem> Check(const ImageView& view, u_int32_t sector_size,
                           std::optional<u_int32_t> flash_size = std::nullopt);

}  // namespace tools
