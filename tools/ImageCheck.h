/// Finds everything that is wrong, or likely wrong, with an image file.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ImageView.h"

namespace tools {

enum class Severity { WARNING, ERROR };

/// A kind of problem.
struct ProblemKind {
  std::string_view id;
  Severity severity;
  std::string_view burn;  ///< what would happen at the burn
};

struct Problem {
  LineNumber line;  ///< 0: the whole file
  const ProblemKind* kind;
  std::string text;
};

/// All kinds there are.
std::span<const ProblemKind> ProblemKinds();

/// All problems of an image in order of lines. `sector_size`: of the flash that it is for, in
/// bytes, more than 0; no matter to an EEPROM.
std::vector<Problem> Check(const ImageView& view, u_int32_t sector_size);

}  // namespace tools
