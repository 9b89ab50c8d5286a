/// The results of a rehearsal.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "device/Whole.h"
#include "rehearse/InterruptionPoint.h"
#include "rehearse/OperationLog.h"
#include "rehearse/TornRecord.h"

namespace rehearse {

/// Which burn was interrupted.
enum class Burning {
  FIRST,     ///< the one that is rehearsed
  NEXT,      ///< the one after it
  RECOVERY,  ///< the one that recovers from an interruption
};

/// A device may not boot, or was not recovered. Successive points with the same state of a device
/// are one exception.
struct RehearsalException {
  device::Guid device = 0;
  Burning during = Burning::FIRST;
  std::optional<InterruptionPoint> first = {};  ///< nothing before the burn, and after its end
  std::optional<unsigned> seed = {};            ///< that shows it, where any other may not
  std::size_t points = 1;                       ///< number of successive points
  std::size_t first_request = 0;                ///< from 1; 0 where there is none
  std::size_t last_request = 0;
  std::string command = {};  ///< of the first request
  std::string step = {};     ///< the part of the memory that was being changed
  std::string state = {};
  std::string reason = {};
  /// Only some ways of tearing the word show it, and no seed that was tried tears it like that.
  bool is_without_seed = false;
};

/// What was found when other burns than the one that is rehearsed lost power.
struct FurtherBurns {
  std::size_t burns = 0;
  std::size_t points = 0;  ///< of all of them
  std::size_t unsafe = 0;  ///< points at which a device does not boot, or may not
  TornRecords torn_records;
  std::size_t recoveries = 0;
  std::size_t unrecovered = 0;
};

/// A device's images of which only its own records tell how long they are.
struct KnownByRecord {
  device::Guid device = 0;
  std::vector<device::PresentImage> images;
};

struct RehearsalReport {
  std::string algorithm;
  std::size_t devices = 0;
  std::size_t unbootable_at_start = 0;  ///< devices that did not boot before the burn
  /// What is said of these images holds as far as their records tell.
  std::vector<KnownByRecord> known_by_record;
  std::size_t requests = 0;
  std::size_t writes = 0;
  std::size_t erases = 0;
  std::map<CutKind, std::size_t> points;
  std::size_t boot_old = 0;
  std::size_t boot_new = 0;
  std::size_t unbootable = 0;
  std::size_t may_not_boot = 0;  ///< points with a whole image, and another slot that boots an
                                 ///< image that is not whole
  TornRecords torn_records;
  std::map<Interruption, std::size_t> recoveries;
  std::size_t unrecovered = 0;
  FurtherBurns next;         ///< the burn after this one: none or one
  FurtherBurns interrupted;  ///< burns that recover, interrupted again
  std::string not_tried;     ///< why there are neither; empty where there are
  double seconds = 0;
  std::vector<RehearsalException> exceptions;
  std::size_t exceptions_left_out = 0;  ///< not kept, because there are too many

  std::size_t Points() const;
  bool IsWell() const { return exceptions.empty() && exceptions_left_out == 0; }

  /// Counts a point by the verdict on the device there.
  void Count(CutKind kind, const device::Verdict& verdict);
  /// Takes over what was found in a further burn, which `during` tells; in `sums`, too. `first` is
  /// the cut from which a burn recovers.
  void AddFurther(RehearsalReport further, Burning during, std::size_t first, FurtherBurns& sums);
  /// Keeps an exception. False where too many are kept already.
  bool Add(RehearsalException exception);
};

}  // namespace rehearse
