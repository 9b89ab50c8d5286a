#include "fwimg/RemarkFindings.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fwimg/Names.h"

namespace fwimg {

namespace {

using device::Remark;
using device::RemarkKind;

/// How many letters must be put in, left out or changed to make one word the other.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

/// The keyword that a word was likely meant to be; "" where it is like none.
std::string_view Meant(std::string_view word) {
  constexpr std::size_t LONGEST = 20;
  if (word.size() > LONGEST) return "";
  std::string upper(word);
  for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  for (const std::string_view keyword : device::ImageKeywords()) {
    if (Distance(upper, keyword) <= keyword.size() / 3) return keyword;
  }
  return "";
}

struct Finding {
  ProblemId kind;
  std::string text;
};

Finding OfUnknown(std::string_view first) {
  const std::string shown = "\"" + Printable(first) + "\"";
  const std::string_view word = first.substr(0, first.find_first_of("\t\r"));
  const auto keywords = device::ImageKeywords();
  if (word.size() < first.size() && std::ranges::find(keywords, word) != keywords.end()) {
    return {
        ProblemId::MISSPELT_DIRECTIVE,
        shown + " is no directive: only blanks separate words; remove the tab or carriage return"};
  }
  if (const std::string_view meant = Meant(first); !meant.empty()) {
    return {ProblemId::MISSPELT_DIRECTIVE,
            "unknown directive " + shown + ": is " + std::string(meant) + " meant?"};
  }
  return {ProblemId::UNKNOWN_DIRECTIVE, "unknown directive " + shown};
}

Finding OfRemark(const Remark& remark) {
  const std::string word = Printable(remark.word);
  const std::string line = "line " + std::to_string(remark.number);
  switch (remark.kind) {
    case RemarkKind::LONG_LINE:
      return {ProblemId::LONG_LINE, "the line is longer than 1022 characters"};
    case RemarkKind::LONG_LINE_REST:
      return {ProblemId::LONG_LINE_REST, "this is the rest of the long " + line};
    case RemarkKind::NUL:
      return {ProblemId::NUL, "what follows the NUL is not read"};
    case RemarkKind::DATA_CUT:
      return {ProblemId::DATA_CUT, "the word " + word + " is more than a byte"};
    case RemarkKind::NUMBER_CUT:
      return {ProblemId::NUMBER_CUT, "the number " + word + " is cut to 32 bits"};
    case RemarkKind::OFFSET_CUT:
      return {ProblemId::NUMBER_CUT, "the offset " + word + " is cut"};
    case RemarkKind::DEVICE_CUT:
      return {ProblemId::DEVICE_CUT,
              "the device number " + word + " is cut to " + HexText(remark.number)};
    case RemarkKind::START_NOT_READ_WHOLE:
      return {ProblemId::START_NOT_READ_WHOLE,
              "the loader stops reading after the device number " + HexText(remark.number)};
    case RemarkKind::SECTION_NOT_CLOSED:
      return {ProblemId::SECTION_NOT_CLOSED,
              "section " + word + " is not closed " +
                  (remark.number == 0 ? "by an END" : "before " + line)};
    case RemarkKind::VERSION_WORDS:
      return {ProblemId::VERSION_WORDS, "a version directive has one number"};
    case RemarkKind::DEVICE_TYPE_TWICE:
      return {ProblemId::DEVICE_TYPE_TWICE, "the device type is given on " + line + " already"};
    case RemarkKind::SLOT_TWICE:
      return {ProblemId::SLOT_TWICE, word + " replaces that of " + line};
    case RemarkKind::BSN_IGNORED:
      return {ProblemId::BSN_IGNORED, "an " + word + " has no BSN: the field is ignored"};
    case RemarkKind::STRAY_DATA:
      return {ProblemId::STRAY_DATA, "data outside a section"};
    case RemarkKind::STRAY_END:
      return {ProblemId::STRAY_END, "END outside a section"};
    case RemarkKind::UNKNOWN_DIRECTIVE:
      break;
  }
  return OfUnknown(remark.word);
}

}  // namespace

void RemarkFindings::Refused(const device::Refusal& refusal) {
  if (refusal.line == 0) {
    _is_name_refused = true;
    return;
  }
  _findings.Add(ProblemId::REFUSED, refusal.line, [&] {
    return Printable(refusal.text) +
           (refusal.has_more ? " (further such lines are not listed)" : "");
  });
}

void RemarkFindings::Remarked(const Remark& remark) {
  Finding finding = OfRemark(remark);
  _findings.Add(finding.kind, remark.line, std::move(finding.text));
}

}  // namespace fwimg
