/// Finds everything that is wrong, or likely wrong, with an image file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fwimg/CheckTarget.h"
#include "fwimg/LineFindings.h"

namespace fwimg {

struct Problem {
  LineNumber line;  ///< 0: the whole file
  const ProblemKind* kind;
  std::string text;
  std::string_view burn;  ///< what would happen at a burn of this image
};

/// The problems of an image file in order of lines, at most some hundred of each kind. Throws
/// device::ImageError where the file cannot be read, or has more parts than could be told apart; a
/// bad file has problems instead.
std::vector<Problem> Check(const std::string& path, const CheckTarget& target);

}  // namespace fwimg
