/// The devices as they are before the burn, the image, and the right state of each device after it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device/Image.h"
#include "device/Whole.h"
#include "rehearse/OperationLog.h"
#include "rehearse/Options.h"
#include "sim/Fabric.h"

namespace rehearse {

/// The devices of one rehearsal, with a judge for each.
class RehearsedDevices {
 public:
  /// Loads the fabric and the image. `options` is borrowed. Throws std::runtime_error.
  explicit RehearsedDevices(const RehearsalOptions& options);
  /// The same devices as a burn left them in `now`, finished or not.
  RehearsedDevices(const RehearsedDevices& before, const sim::Fabric& now, bool is_finished);

  /// The node GUIDs of the devices to burn, ascending.
  const std::vector<device::Guid>& Guids() const { return _guids; }
  bool HasBootRecords() const { return _image.Slots() == device::SlotKind::BOOT_RECORDS; }
  device::MemoryKind MemoryKindOf(device::Guid guid) const;
  /// Where the boot code of a device looks for its records.
  device::BootLayout LayoutOf(device::Guid guid) const;

  /// The judge of a device, with the memory as it was before the burn.
  const device::Judge& JudgeOf(device::Guid guid) const { return _judges.at(guid); }
  /// The images that a device held before the burn and that no named file explains: how long they
  /// are, only the device's own records tell.
  const std::vector<device::PresentImage>& KnownByRecord(device::Guid guid) const {
    return _known_by_record.at(guid);
  }
  bool BootsAtStart(device::Guid guid) const { return JudgeOf(guid).CurrentVerdict().BootsWhole(); }
  /// Copies all devices, as they were before the burn, to an empty fabric.
  void CopyTo(sim::Fabric& fabric) const;

  /// The judge of a device, with its memory in another fabric that was burnt from the same starting
  /// state; and its verdict.
  device::Judge JudgeOn(const sim::Fabric& fabric, device::Guid guid) const;
  device::Verdict VerdictOn(const sim::Fabric& fabric, device::Guid guid) const {
    return JudgeOn(fabric, guid).CurrentVerdict();
  }
  /// Whether a burn may end with this verdict: of a flash, exactly one slot boots and it is new; of
  /// an RV61300, both are.
  bool IsBurnt(const device::Verdict& verdict) const { return verdict.IsBurnt(_image.Slots()); }

  /// What a failsafe burn that makes these changes writes in the wrong order; empty where nothing.
  std::string OrderErrorOf(device::Guid guid, const std::vector<LoggedOperation>& changes) const;

  /// The linear address of a byte of a chip; nothing outside the device map.
  std::optional<std::uint32_t> LinearOf(std::uint8_t chip, std::uint32_t offset) const;
  /// The part of the image layout that an operation changes, for the report.
  std::string StepAt(device::Guid guid, const LoggedOperation& operation) const;

 private:
  void ChooseDevices();
  void AddJudge(const sim::Device& device);
  void AddNewImage(device::Judge& judge, const sim::Device& device) const;

  const RehearsalOptions& _options;
  sim::Fabric _start;
  device::Image _image;
  std::vector<device::Guid> _guids;
  std::map<device::Guid, device::Judge> _judges;
  std::map<device::Guid, std::vector<device::PresentImage>> _known_by_record;
};

}  // namespace rehearse
