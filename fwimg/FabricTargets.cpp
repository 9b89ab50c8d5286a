#include "fwimg/FabricTargets.h"

#include <algorithm>

#include "fwimg/Layout.h"
#include "fwimg/Names.h"
#include "sim/FabricFile.h"

namespace fwimg {

namespace {

CheckTarget MemoryTargetOf(const sim::Device& device) {
  CheckTarget target{.sector_size = USUAL_SECTOR_SIZE};
  if (device.kind == device::MemoryKind::FLASH) {
    const sim::Chip& flash = device.chips.begin()->second;
    target.sector_size = flash.SectorSize();
    target.flash_size = flash.Size();
    target.name = Text("a flash of ", HexText(*target.flash_size), " bytes in sectors of ",
                       HexText(target.sector_size));
    return target;
  }
  target.eeproms.emplace();
  target.name = "the EEPROMs";
  for (const auto& [address, chip] : device.chips) {
    target.eeproms->emplace(address, chip.Size());
    target.name += Text(target.eeproms->size() == 1 ? " " : ", ", HexText(address), " of ",
                        HexText(chip.Size()), " bytes");
  }
  return target;
}

CheckTarget TargetOf(const sim::Device& device, unsigned log2_chunk) {
  CheckTarget target = MemoryTargetOf(device);
  target.log2_chunk = log2_chunk;
  target.ports = device.port_guids.size();
  if (HasUsualPorts(target)) {
    target.ports.reset();
  } else {
    target.name += Text(" on a device of ", *target.ports, " ports");
  }
  return target;
}

}  // namespace

FabricTargets::FabricTargets(const std::filesystem::path& path, unsigned log2_chunk) : _path(path) {
  sim::Fabric fabric;
  sim::LoadFabric(path, std::nullopt, fabric);
  for (const auto& [guid, device] : fabric.Devices()) {
    auto& targets = device.kind == device::MemoryKind::FLASH ? _flashes : _eeproms;
    CheckTarget target = TargetOf(device, log2_chunk);
    if (std::ranges::find(targets, target) == targets.end()) targets.push_back(std::move(target));
  }
}

std::vector<CheckTarget> FabricTargets::For(const device::DeviceType& type) const {
  const bool is_flash = type.memory == device::MemoryKind::FLASH;
  const auto& targets = is_flash ? _flashes : _eeproms;
  if (targets.empty()) {
    throw NoTargetError(_path.string() + ": no device has " + (is_flash ? "a flash" : "EEPROMs") +
                        ", which an image for " + std::string(type.keyword) +
                        " needs: nothing to check it against");
  }
  return targets;
}

}  // namespace fwimg
