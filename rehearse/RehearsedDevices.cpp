#include "rehearse/RehearsedDevices.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "common/Text.h"
#include "sim/BootReport.h"
#include "sim/FabricFile.h"
#include "sim/Filling.h"

namespace rehearse {

RehearsedDevices::RehearsedDevices(const RehearsalOptions& options) : _options(options) {
  sim::LoadFabric(options.fabric_file, {}, _start);
  _start.faults = {};  // only the rehearsal injects faults
  _image = sim::LoadImage(options.image_file);
  ChooseDevices();
  for (const device::Guid guid : _guids) AddJudge(*_start.Find(guid));
}

RehearsedDevices::RehearsedDevices(const RehearsedDevices& before, const sim::Fabric& now,
                                   bool is_finished)
    : _options(before._options),
      _image(before._image),
      _guids(before._guids),
      _known_by_record(before._known_by_record) {
  _start.facts = now.facts;
  for (const auto& [guid, device] : now.Devices()) _start.CopyDevice(device);
  for (const device::Guid guid : _guids) {
    const sim::Device& device = *_start.Find(guid);
    device::Judge judge = before.JudgeOf(guid);
    judge.SetAll(sim::MemoryOf(device, _image).bytes);
    if (is_finished) AddNewImage(judge, device);  // bytes between its sections may have changed
    _judges.emplace(guid, std::move(judge));
  }
}

void RehearsedDevices::ChooseDevices() {
  std::set<device::Guid> guids;  // options may name a device by any of its GUIDs
  for (const device::Guid guid : _options.guids) {
    const sim::Device* device = _start.Find(guid);
    if (device == nullptr) {
      throw std::runtime_error("the fabric has no device " + common::HexGuid(guid));
    }
    guids.insert(device->node_guid);
  }
  if (_options.guids.empty()) {
    for (const auto& [guid, device] : _start.Devices()) guids.insert(guid);
  }
  _guids.assign(guids.begin(), guids.end());
}

/// The judge takes the old images from their files, where the fabric file names them; the result of
/// a burn under test must not define what is whole. Only a slot that no file can explain is taken
/// as it is.
void RehearsedDevices::AddJudge(const sim::Device& device) {
  const device::Memory memory = sim::MemoryOf(device, _image);
  if (!memory.Holds(0, memory.sector_size)) {
    throw sim::JudgeError(common::Text("The image's slots lie past the ", memory.bytes.size(),
                                       " bytes of its device map"));
  }
  device::Judge judge(sim::LayoutOf(_image, _options.image_file, memory.sector_size), memory.bytes);
  bool has_all_images = !device.images.empty();
  for (const std::string& file : device.images) {
    try {
      sim::AddKnownImageFile(judge, device, file, device::Whole::OLD);
    } catch (const sim::JudgeError&) {
      has_all_images = false;  // one with another layout: a slot may hold it, or a part of it
    }
  }
  judge.AddPresentInvariantSector();
  AddNewImage(judge, device);
  std::vector<device::PresentImage> by_record;
  if (!has_all_images) by_record = judge.AddPresentImages();
  _known_by_record.emplace(device.node_guid, std::move(by_record));
  _judges.emplace(device.node_guid, std::move(judge));
}

void RehearsedDevices::AddNewImage(device::Judge& judge, const sim::Device& device) const {
  const bool is_plain = std::ranges::count(_options.extra_args, "-n") > 0;
  sim::AddKnownImageFile(judge, device, _options.image_file, device::Whole::NEW,
                         is_plain ? device::Origin::PLAIN_BURN : device::Origin::FAILSAFE_BURN);
}

device::MemoryKind RehearsedDevices::MemoryKindOf(device::Guid guid) const {
  const sim::Device& device = *_start.Find(guid);
  return sim::SectorSizeOf(device) == 0 ? device::MemoryKind::EEPROM : device::MemoryKind::FLASH;
}

device::BootLayout RehearsedDevices::LayoutOf(device::Guid guid) const {
  return sim::LayoutOf(_image, _options.image_file, sim::SectorSizeOf(*_start.Find(guid)));
}

void RehearsedDevices::CopyTo(sim::Fabric& fabric) const {
  fabric.facts = _start.facts;
  for (const auto& [guid, device] : _start.Devices()) fabric.CopyDevice(device);
}

device::Judge RehearsedDevices::JudgeOn(const sim::Fabric& fabric, device::Guid guid) const {
  device::Judge judge = JudgeOf(guid);
  judge.SetAll(sim::MemoryOf(*fabric.Find(guid), _image).bytes);
  return judge;
}

std::optional<std::uint32_t> RehearsedDevices::LinearOf(std::uint8_t chip,
                                                        std::uint32_t offset) const {
  return _image.AddressWithin({chip, offset}, 1);
}

std::string RehearsedDevices::OrderErrorOf(device::Guid guid,
                                           const std::vector<LoggedOperation>& changes) const {
  const sim::Device& device = *_start.Find(guid);
  const device::Burn burn(_image, device::BurnKind::FAILSAFE, sim::IdentityOf(device));
  const device::Memory before = sim::MemoryOf(device, _image);
  std::vector<device::MemoryChange> made;
  made.reserve(changes.size());
  for (const LoggedOperation& change : changes) {
    made.push_back(sim::ChangeOf(
        {change.kind, guid, change.chip, change.offset, change.bytes, change.size}, _image));
  }
  return device::OrderError(burn.Steps(before, burn.Observe(before)), made);
}

std::string RehearsedDevices::StepAt(device::Guid guid, const LoggedOperation& operation) const {
  const auto linear = LinearOf(operation.chip, operation.offset);
  if (!linear) return "memory outside the device map";
  const std::uint32_t addr = *linear;
  const device::BootLayout layout = LayoutOf(guid);
  const std::uint32_t sector = layout.sector_size;
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    const std::uint32_t record = layout.records[slot];
    if (layout.HasPointerSectors() && addr >= record && addr - record < sector) {
      return common::Text("pointer sector ", slot, " at 0x", std::hex, addr);
    }
  }
  if (layout.HasPointerSectors() && addr < sector) {
    return common::Text("invariant sector at 0x", std::hex, addr);
  }
  const int slot = addr >= _image.slots[1].image ? 1 : 0;
  return common::Text("image slot ", slot, " at 0x", std::hex, addr);
}

}  // namespace rehearse
