/// What the reader of image files says of single lines, as findings.
#pragma once

#include "device/ImageFile.h"
#include "fwimg/LineFindings.h"

namespace fwimg {

/// Collects findings while a file is read.
class RemarkFindings : public device::ImageListener {
 public:
  void Refused(const device::Refusal& refusal) override;
  void Remarked(const device::Remark& remark) override;

  const LineFindings& Findings() const { return _findings; }
  /// Then that is the file's first refusal.
  bool IsNameRefused() const { return _is_name_refused; }

 private:
  LineFindings _findings;
  bool _is_name_refused = false;
};

}  // namespace fwimg
