/// What is found in an image file, line by line.
#pragma once

#include <array>
#include <concepts>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "device/ImageFile.h"
#include "fwimg/ProblemKinds.h"

namespace fwimg {

using device::LineNumber;

/// One odd thing about a line.
struct LineFinding {
  LineNumber line;
  ProblemId kind;
  std::string text;
};

/// Findings, none of them twice. A kind is told so often at most: more of it says nothing new, and
/// a file may have millions.
class LineFindings {
 public:
  static constexpr std::size_t MOST_OF_A_KIND = 100;

  /// `make_text` is only called where the text is needed.
  template <std::invocable MakeText>
  void Add(ProblemId kind, LineNumber line, const MakeText& make_text) {
    OfKind& known = _kinds[static_cast<std::size_t>(kind)];
    Mark(known, line);
    if (known.has_more) return;
    Record(known, {line, kind, make_text()});
  }
  void Add(ProblemId kind, LineNumber line, std::string text) {
    Add(kind, line, [&text] { return std::move(text); });
  }

  /// In order of lines. Where a kind is told in part, the first says on how many lines it is.
  std::vector<LineFinding> InOrder() const;

 private:
  struct OfKind {
    std::set<std::pair<LineNumber, std::string>> recorded;
    bool has_more = false;
    std::vector<bool> lines;  ///< by number: whether it was found there, told or not
  };

  static void Mark(OfKind& known, LineNumber line);
  void Record(OfKind& known, LineFinding finding);

  std::array<OfKind, static_cast<std::size_t>(ProblemId::COUNT)> _kinds;
  std::vector<LineFinding> _recorded;  ///< in the order in which they were found
};

}  // namespace fwimg
