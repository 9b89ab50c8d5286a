/// The burn without an interruption: what it changes, and how it ends. The rehearsal interrupts
/// this burn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "device/Bytes.h"
#include "device/Whole.h"
#include "rehearse/Burner.h"
#include "rehearse/OperationLog.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Report.h"

namespace rehearse {

/// A part of an old and a part of a new boot record make a valid one.
inline constexpr char MIX_ADDS_UP[] =
    "a mix of an old and a new boot record happens to have a valid sum";

/// The burn fails although nothing interrupts it.
class BurnFails : public std::runtime_error {
 public:
  explicit BurnFails(const Run& run)
      : std::runtime_error("the burn fails without any interruption:\n" + run.console),
        last_line(run.LastLine()) {}
  const std::string last_line;  ///< of the console
};

/// One burn of all devices to its end, and what it changed on each of them.
class UninterruptedBurn {
 public:
  /// Burns. Throws BurnFails. Adds an exception to the report for each device that does not end in
  /// the right state. `devices` is borrowed.
  UninterruptedBurn(const RehearsedDevices& devices, const Burner& burner, RehearsalReport& report);

  const OperationLog& Log() const { return _log; }
  std::size_t Requests() const { return _requests; }
  /// Whether every device that booted before ends in the right state.
  bool EndsWell() const { return _wrong_ends.empty(); }

  /// Whether it is not failsafe.
  bool IsPlain() const { return _algorithm == "GenericBurn"; }

  /// Brings all devices from their state before the burn to that at a cut: one device loses power
  /// there, and the burn of the others goes on. To the end of the burn without a cut. Throws
  /// std::runtime_error where there is no such cut.
  void Replay(sim::Fabric& fabric, std::optional<std::size_t> point, unsigned seed) const;

  /// Why a device that booted at the start does not boot when the burn is interrupted: `now` has
  /// its memory. `is_torn_record`: a word of a boot record may be neither old nor new.
  std::string ReasonFor(device::Guid guid, const device::Judge& now, bool is_torn_record) const;

 private:
  std::string ReasonForEnd(device::Guid guid, const device::Verdict& end,
                           const std::string& console) const;
  std::string ReasonWithPointerSectors(device::Guid guid, const device::Judge& now) const;
  device::View RecordIn(const device::Judge& judge, device::Guid guid, std::uint32_t slot) const;
  bool HasBurntSlot(device::Guid guid, const device::Judge& now, std::uint32_t slot) const;
  std::string ReasonWithBootRecords(device::Guid guid, const device::Judge& now,
                                    bool is_torn_record) const;

  const RehearsedDevices& _devices;
  OperationLog _log;
  std::size_t _requests = 0;
  std::string _algorithm;  ///< name in the burner's output
  /// Of the devices that booted before and do not end in the right state, that state.
  std::map<device::Guid, device::Judge> _wrong_ends;
  bool _has_moved = false;  ///< it moved an image
};

}  // namespace rehearse
