/// What a rehearsal is about: the devices as they are before the burn, the image, and what is right
/// for each of them afterwards.
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

class Subject {
 public:
  /// Loads the fabric and the image. `options` is borrowed. Throws std::runtime_error when it
  /// cannot.
  explicit Subject(const RehearsalOptions& options);

  /// The devices that are burnt, by node GUID, ascending.
  const std::vector<device::Guid>& Guids() const { return _guids; }
  bool HasBootRecords() const { return _image.Slots() == device::SlotKind::BOOT_RECORDS; }
  device::MemoryKind MemoryKindOf(device::Guid guid) const;

  /// A judge over a device as it was before the burn.
  const device::Judge& JudgeOf(device::Guid guid) const { return _judges.at(guid); }
  bool BootsAtStart(device::Guid guid) const { return JudgeOf(guid).Look().BootsWhole(); }
  /// Fills an empty fabric with all devices as they were before the burn.
  void CopyTo(sim::Fabric& fabric) const;

  /// What a device of another fabric, burnt from the same start, is worth.
  device::Verdict VerdictOn(const sim::Fabric& fabric, device::Guid guid) const;
  /// Whether it is what a burn must end with: one slot of a flash boots and is new, and both of an
  /// RV61300.
  bool IsAsItShouldEnd(const device::Verdict& verdict) const;

  /// Where a byte of a chip lies in the image's address space; nothing past its device map.
  std::optional<std::uint32_t> LinearOf(std::uint8_t chip, std::uint32_t offset) const;
  /// What an operation changes, in the words of the layout.
  std::string StepAt(device::Guid guid, const LoggedOperation& operation) const;

 private:
  void ChooseDevices();
  device::Judge MakeJudge(const sim::Device& device) const;

  const RehearsalOptions& _options;
  sim::Fabric _start;
  device::Image _image;
  std::vector<device::Guid> _guids;
  std::map<device::Guid, device::Judge> _judges;
};

}  // namespace rehearse
