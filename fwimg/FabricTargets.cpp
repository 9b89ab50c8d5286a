#include "fwimg/FabricTargets.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "common/TomlReader.h"
#include "fwimg/Layout.h"
#include "fwimg/Names.h"
#include "serve/Configuration.h"
#include "sim/FabricFile.h"

namespace fwimg {

namespace {

CheckTarget FlashTarget(std::optional<std::uint32_t> size, std::uint32_t sector_size) {
  CheckTarget target{.sector_size = sector_size, .flash_size = size};
  target.name = size ? Text("a flash of ", HexText(*size), " bytes") : "a flash";
  target.name += " in sectors of " + HexText(sector_size);
  return target;
}

CheckTarget EepromTarget(const std::map<std::uint8_t, std::uint32_t>& sizes) {
  CheckTarget target{.sector_size = USUAL_SECTOR_SIZE, .eeproms = sizes};
  target.name = "the EEPROMs";
  for (const auto& [address, size] : sizes) {
    target.name += Text(address == sizes.begin()->first ? " " : ", ", HexText(address), " of ",
                        HexText(size), " bytes");
  }
  return target;
}

CheckTarget MemoryTargetOf(const sim::Device& device) {
  if (device.kind == device::MemoryKind::FLASH) {
    const sim::Chip& flash = device.chips.begin()->second;
    return FlashTarget(flash.Size(), flash.SectorSize());
  }
  std::map<std::uint8_t, std::uint32_t> sizes;
  for (const auto& [address, chip] : device.chips) sizes.emplace(address, chip.Size());
  return EepromTarget(sizes);
}

/// The end of a flash without a size is not known before the machine is asked.
CheckTarget MemoryTargetOf(const serve::DeviceConfig& device) {
  if (device.flash) {
    const auto& flash = *device.flash;
    const auto size = flash.size != 0 ? std::optional(flash.size) : std::nullopt;
    return FlashTarget(size, flash.sector_size);
  }
  std::map<std::uint8_t, std::uint32_t> sizes;
  for (const auto& [address, eeprom] : device.eeproms) sizes.emplace(address, eeprom.size);
  return EepromTarget(sizes);
}

/// Whether a file describes real memories. Only these are in an `mtd`, a `file` or behind an `i2c`,
/// and only their servers listen, allow, log and keep leases. Throws common::TomlError where it is
/// no TOML.
bool IsConfiguration(const std::filesystem::path& path) {
  constexpr const char* SERVER_KEYS[] = {"listen",          "allow",       "audit",
                                         "state",           "read_only",   "max_message",
                                         "max_connections", "idle_seconds"};
  constexpr const char* DEVICE_KEYS[] = {"read_only", "write", "prepare", "release",
                                         "hook_seconds"};
  constexpr const char* FLASH_KEYS[] = {"mtd", "by_path", "file", "expect", "first", "page_size"};
  constexpr const char* CHIP_KEYS[] = {"i2c", "file"};
  const auto has = [](common::TomlReader& table, const auto& keys) {
    return std::ranges::any_of(keys, [&](const char* key) { return table.Any(key).has_value(); });
  };
  common::TomlReader reader(path);
  auto server = reader.IsTable("server") ? reader.Table("server") : std::nullopt;
  if (server && has(*server, SERVER_KEYS)) return true;
  for (common::TomlReader& device : reader.Tables("device")) {
    if (has(device, DEVICE_KEYS)) return true;
    auto flash = device.IsTable("flash") ? device.Table("flash") : std::nullopt;
    if (flash && has(*flash, FLASH_KEYS)) return true;
    for (common::TomlReader& chip : device.Tables("chip")) {
      if (has(chip, CHIP_KEYS)) return true;
    }
  }
  return false;
}

CheckTarget Finished(CheckTarget target, std::size_t ports, unsigned log2_chunk) {
  target.log2_chunk = log2_chunk;
  target.ports = ports;
  if (HasUsualPorts(target)) {
    target.ports.reset();
  } else {
    target.name += Text(" on a device of ", *target.ports, " ports");
  }
  return target;
}

}  // namespace

FabricTargets::FabricTargets(const std::filesystem::path& path, unsigned log2_chunk) : _path(path) {
  const auto add = [&](bool is_flash, CheckTarget memory, std::size_t ports) {
    auto& targets = is_flash ? _flashes : _eeproms;
    CheckTarget target = Finished(std::move(memory), ports, log2_chunk);
    if (std::ranges::find(targets, target) == targets.end()) targets.push_back(std::move(target));
  };
  if (IsConfiguration(path)) {
    for (const serve::DeviceConfig& device : serve::LoadConfiguration(path).devices) {
      add(device.flash.has_value(), MemoryTargetOf(device), device.facts.port_guids.size());
    }
    return;
  }
  sim::Fabric fabric;
  sim::LoadFabric(path, std::nullopt, fabric);
  for (const auto& [guid, device] : fabric.Devices()) {
    add(device.kind == device::MemoryKind::FLASH, MemoryTargetOf(device), device.port_guids.size());
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
