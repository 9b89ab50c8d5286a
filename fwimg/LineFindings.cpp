#include "fwimg/LineFindings.h"

#include <algorithm>

#include "common/Text.h"

namespace fwimg {

void LineFindings::Mark(OfKind& known, LineNumber line) {
  if (known.lines.size() <= line) known.lines.resize(std::size_t{line} + 1);
  known.lines[line] = true;
}

void LineFindings::Record(OfKind& known, LineFinding finding) {
  const auto key = std::pair(finding.line, finding.text);
  if (known.recorded.contains(key)) return;
  if (known.recorded.size() == MOST_OF_A_KIND) {
    known.has_more = true;
    return;
  }
  known.recorded.insert(key);
  _recorded.push_back(std::move(finding));
}

std::vector<LineFinding> LineFindings::InOrder() const {
  std::vector<LineFinding> all;
  for (std::size_t i = 0; i < _kinds.size(); ++i) {
    if (!_kinds[i].has_more) continue;
    const auto lines = std::ranges::count(_kinds[i].lines, true);
    all.push_back({0, static_cast<ProblemId>(i),
                   common::Text("more of this kind, on ", lines, lines == 1 ? " line" : " lines",
                                " in all")});
  }
  all.insert(all.end(), _recorded.begin(), _recorded.end());
  std::ranges::stable_sort(all, {}, &LineFinding::line);
  return all;
}

}  // namespace fwimg
