#include "fwimg/ImageCheck.h"

#include <algorithm>
#include <utility>

#include "common/Files.h"
#include "fwimg/CheckBootRecord.h"
#include "fwimg/CheckChips.h"
#include "fwimg/CheckFieldsAndCrcs.h"
#include "fwimg/CheckFlash.h"
#include "fwimg/CheckSlots.h"
#include "fwimg/CheckStructure.h"
#include "fwimg/CheckedImage.h"
#include "fwimg/ImageSource.h"
#include "fwimg/RemarkFindings.h"

namespace fwimg {

namespace {

/// An image file, and what its lines by themselves are found to be.
struct ReadFile {
  device::ImageFile file;
  LineFindings findings;
  std::string name_refusal = {};  ///< why fwpush does not even open it; empty where it does
};

/// Whether the carriage returns at the ends of its lines change what a burn of the file does.
/// There, `with` is how it reads with them.
bool DoTheyMatter(const ReadFile& with, const ReadFile& without) {
  const auto told = [](const ReadFile& read) {
    std::vector<std::pair<LineNumber, ProblemId>> found;
    for (const LineFinding& finding : read.findings.InOrder()) {
      // An empty line is a word that means nothing.
      if (finding.kind == ProblemId::UNKNOWN_DIRECTIVE && finding.text.ends_with("\"\\x0d\""))
        continue;
      found.emplace_back(finding.line, finding.kind);
    }
    return found;
  };
  return with.file.device_type_word != without.file.device_type_word || told(with) != told(without);
}

/// The file as it reads without the carriage returns at the ends of its lines, with one finding for
/// all of them. Nothing where they do no harm.
std::optional<ReadFile> WithoutCarriageReturns(const std::string& path, const ReadFile& with) {
  const bool is_clean = with.findings.InOrder().empty() && with.file.image.type != nullptr;
  if (is_clean) return std::nullopt;
  common::Bytes bytes;
  try {
    bytes = common::ReadFile(path);
  } catch (const std::runtime_error& error) {
    throw device::ImageError(error.what());  // it was there just now
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::string changed;
  LineNumber line = 0;
  LineNumber first = 0;
  std::size_t count = 0;
  for (std::string_view each : common::Lines(text)) {
    ++line;
    if (each.ends_with('\r')) {
      each.remove_suffix(each.size() - (each.find_last_not_of('\r') + 1));
      ++count;
      if (first == 0) first = line;
    }
    changed.append(each) += '\n';
  }
  if (count == 0) return std::nullopt;
  if (!text.ends_with('\n')) changed.pop_back();
  RemarkFindings remarks;
  ReadFile without{ParseWithLineInfo(changed, path, remarks), {}};
  without.findings = remarks.Findings();
  if (!DoTheyMatter(with, without)) return std::nullopt;
  without.findings.Add(
      ProblemId::LINE_ENDS, first,
      Text(count == line ? "all" : std::to_string(count) + " of " + std::to_string(line),
           " lines end with a carriage return and a line feed (CRLF), not with a line feed alone; ",
           "dos2unix or sed 's/\\r$//' removes the carriage returns"));
  return without;
}

ReadFile ReadForCheck(const std::string& path) {
  RemarkFindings remarks;
  ReadFile read{ReadWithLineInfo(path, remarks), {}};
  read.findings = remarks.Findings();
  if (remarks.IsNameRefused()) read.name_refusal = read.file.refusal;
  if (auto without = WithoutCarriageReturns(path, read)) {
    without->name_refusal = read.name_refusal;
    return std::move(*without);
  }
  return read;
}

std::vector<Problem> ProblemsOf(const ReadFile& read, const CheckTarget& target) {
  LineFindings findings = read.findings;
  const CheckedImage image(read.file, target);
  CheckStructure(image, findings);
  CheckChips(image, findings);
  CheckSlots(image, findings);
  CheckFieldsAndCrcs(image, findings);
  if (image.is_flash) CheckFlash(image, findings);
  if (image.kind == SlotKind::BOOT_RECORDS) CheckBootRecord(image, findings);

  const device::DeviceType* type = read.file.image.type;
  std::vector<Problem> problems;
  const auto add = [&](LineNumber line, ProblemId id, std::string text) {
    const ProblemKind& kind = KindOf(id);
    problems.push_back({line, &kind, std::move(text), kind.BurnOf(type)});
  };
  // The file's name is what fwpush sees first.
  if (!read.name_refusal.empty()) add(0, ProblemId::REFUSED, Printable(read.name_refusal));
  for (LineFinding& finding : findings.InOrder()) {
    add(finding.line, finding.kind, std::move(finding.text));
  }
  return problems;
}

}  // namespace

std::vector<Problem> Check(const std::string& path, const CheckTarget& target) {
  return ProblemsOf(ReadForCheck(path), target);
}

std::vector<Problem> CheckEach(const std::string& path, const TargetsFor& targets_for) {
  const ReadFile read = ReadForCheck(path);
  const std::vector<CheckTarget> targets = targets_for(read.file.image.type);
  std::vector<Problem> all;
  std::vector<std::vector<const CheckTarget*>> having;  // of each: the targets that have it
  for (const CheckTarget& target : targets) {
    for (Problem& problem : ProblemsOf(read, target)) {
      const auto known = std::ranges::find_if(all, [&](const Problem& other) {
        return other.line == problem.line && other.kind == problem.kind &&
               other.text == problem.text;
      });
      const auto index = static_cast<std::size_t>(known - all.begin());
      if (known == all.end()) {
        all.push_back(std::move(problem));
        having.emplace_back();
      }
      having[index].push_back(&target);
    }
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (having[i].size() == targets.size()) continue;
    std::string names;
    for (const CheckTarget* target : having[i]) names += (names.empty() ? "" : "; ") + target->name;
    all[i].text += " (for " + names + ")";
  }
  std::ranges::stable_sort(all, {}, &Problem::line);
  return all;
}

}  // namespace fwimg
