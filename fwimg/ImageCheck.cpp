#include "fwimg/ImageCheck.h"

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

std::vector<Problem> Check(const std::string& path, const CheckTarget& target) {
  RemarkFindings remarks;
  const device::ImageFile file = ReadWithLineInfo(path, remarks);
  LineFindings findings = remarks.Findings();
  const CheckedImage image(file, target);
  CheckStructure(image, findings);
  CheckChips(image, findings);
  CheckSlots(image, findings);
  CheckFieldsAndCrcs(image, findings);
  if (image.is_flash) CheckFlash(image, findings);
  if (image.kind == SlotKind::BOOT_RECORDS) CheckBootRecord(image, findings);

  const device::DeviceType* type = file.image.type;
  std::vector<Problem> problems;
  const auto add = [&](LineNumber line, ProblemId id, std::string text) {
    const ProblemKind& kind = KindOf(id);
    problems.push_back({line, &kind, std::move(text), kind.BurnOf(type)});
  };
  // The file's name is what fwpush sees first.
  if (remarks.IsNameRefused()) add(0, ProblemId::REFUSED, Printable(file.refusal));
  for (LineFinding& finding : findings.InOrder()) {
    add(finding.line, finding.kind, std::move(finding.text));
  }
  return problems;
}

}  // namespace fwimg
