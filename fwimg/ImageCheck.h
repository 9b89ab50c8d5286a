/// Finds everything that is wrong, or likely wrong, with an image file.
#pragma once

#include <functional>
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

/// What an image is checked against, by its device type, which is null where it is unknown; never
/// nothing. What it throws passes through CheckEach.
using TargetsFor = std::function<std::vector<CheckTarget>(const device::DeviceType* type)>;

/// The same against several targets: each problem once, with the names of the targets that have it
/// unless all do.
std::vector<Problem> CheckEach(const std::string& path, const TargetsFor& targets_for);

}  // namespace fwimg
