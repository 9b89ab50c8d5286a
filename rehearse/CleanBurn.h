/// The burn without an interruption: what it changed, and how it ends. All interruptions are
/// interruptions of it.
#pragma once

#include <cstddef>
#include <string>

#include "device/Bytes.h"
#include "device/Whole.h"
#include "rehearse/Burner.h"
#include "rehearse/OperationLog.h"
#include "rehearse/Report.h"
#include "rehearse/Subject.h"

namespace rehearse {

class CleanBurn {
 public:
  /// Burns. Throws std::runtime_error when that fails by itself. Devices on which it does not end
  /// as it should are exceptions of the report. `subject` is borrowed.
  CleanBurn(const Subject& subject, const Burner& burner, RehearsalReport& report);

  const OperationLog& Log() const { return _log; }
  std::size_t Requests() const { return _requests; }
  /// Whether it ends as it should on every device that booted before.
  bool EndsWell() const { return _ends_well; }

  /// Why a device that booted at the start does not when the burn is interrupted.
  std::string ReasonFor(device::Guid guid, const device::Verdict& verdict) const;

 private:
  bool IsPlain() const { return _algorithm == "GenericBurn"; }
  std::string ReasonForEnd(device::Guid guid, const device::Verdict& end,
                           const std::string& console) const;
  std::string ReasonWithPointerSectors(device::Guid guid, const device::Verdict& verdict) const;
  std::string ReasonWithBootRecords(const device::Verdict& verdict) const;

  const Subject& _subject;
  OperationLog _log;
  std::size_t _requests = 0;
  std::string _algorithm;  ///< as the burner names it
  bool _ends_well = true;
  bool _has_moved = false;  ///< it moved an image
};

}  // namespace rehearse
