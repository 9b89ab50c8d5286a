#include "serve/ServedDevices.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"
#include "serve/DryMemory.h"
#include "serve/Leases.h"
#include "serve/Wires.h"

namespace serve {

namespace {

/// The name of a lock file may have no slash.
std::string FileName(std::string text) {
  for (char& c : text) {
    if (c == '/') c = '-';
  }
  return text;
}

std::string ChannelKey(const AdapterConfig& adapter) {
  std::string key = adapter.adapter;
  for (const auto& [address, channel] : adapter.muxes) {
    key += common::Text(" ", address, ".", channel);
  }
  return key;
}

}  // namespace

ServedDevice::ServedDevice() = default;
ServedDevice::~ServedDevice() = default;

void ServedDevices::Set(const Configuration& configuration) {
  _state = configuration.state;
  ++_configurations;
  _next.clear();
  for (const DeviceConfig& device : configuration.devices) {
    DeviceConfig& next = _next.emplace(device.facts.node_guid, device).first->second;
    next.is_read_only = next.is_read_only || configuration.is_read_only;
  }
  std::erase_if(_devices, [](const auto& entry) { return !entry.second->lease; });
  AddMissing();
}

void ServedDevices::Settle(const ServedDevicePointer& device) {
  if (device->configuration == _configurations) return;
  _devices.erase(device->config.facts.node_guid);
  AddMissing();
}

void ServedDevices::AddMissing() {
  for (const auto& [guid, config] : _next) {
    if (_devices.contains(guid)) continue;
    auto device = std::make_shared<ServedDevice>();
    Make(config, *device);
    const ServedDevicePointer claimant = ClaimantOf(*device);
    if (!claimant) {
      _devices.emplace(guid, std::move(device));
    } else if (log) {
      log(common::HexGuid(guid) + " is not served: " +
          common::HexGuid(claimant->config.facts.node_guid) + " has a part of its memory");
    }
  }
  Index();
}

ServedDevicePointer ServedDevices::ClaimantOf(const ServedDevice& device) const {
  for (const auto& [guid, other] : _devices) {
    for (const Claim& claim : device.claims) {
      if (std::ranges::any_of(other->claims,
                              [&](const Claim& taken) { return taken.Overlaps(claim); })) {
        return other;
      }
    }
  }
  return nullptr;
}

Claim ServedDevices::ClaimOf(const FlashConfig& flash) const {
  Claim claim{FlashKey(_system, flash), flash.first, flash.first + flash.size};
  if (flash.mtd) {
    // A partition is a part of the chip that it is on.
    const FoundMtd found = FindMtd(_system, *flash.mtd);
    claim.first += found.offset;
    claim.end += found.offset;
    if (flash.size == 0) claim.end = found.size == 0 ? UINT64_MAX : found.offset + found.size;
  }
  return claim;
}

Claim ServedDevices::ClaimOf(const EepromConfig& eeprom) const {
  if (eeprom.file) return {FileKey(_system, *eeprom.file), 0, eeprom.size};
  const I2cConfig& i2c = *eeprom.i2c;
  const FoundAdapter found = FindAdapter(_system, i2c.adapter);
  const std::uint32_t banks = ((eeprom.size - 1) >> i2c.offset_bits << i2c.bank_bit) + 1;
  return {found.path.empty() ? ChannelKey(i2c.adapter) : found.path, i2c.address,
          std::uint64_t{i2c.address} + banks};
}

void ServedDevices::Index() {
  _node_of.clear();
  // Those that are held come last: they keep their names.
  for (const bool is_held : {false, true}) {
    for (const auto& [node, device] : _devices) {
      if ((device->lease != nullptr) != is_held) continue;
      _node_of[node] = node;
      for (const protocol::Guid port : device->config.facts.port_guids) _node_of[port] = node;
    }
  }
}

ServedDevicePointer ServedDevices::Find(protocol::Guid guid) const {
  const auto node = _node_of.find(guid);
  return node == _node_of.end() ? nullptr : _devices.at(node->second);
}

WireId ServedDevices::WireOf(const std::string& key) {
  return _wires.try_emplace(key, _wires.size()).first->second;
}

NodeLock& ServedDevices::LockOf(const std::string& key) {
  auto& lock = _locks[key];
  if (!lock) lock = std::make_unique<NodeLock>();
  return *lock;
}

void ServedDevices::Make(const DeviceConfig& config, ServedDevice& device) {
  device.config = config;
  device.configuration = _configurations;
  device.facts.clear();
  device.chips.clear();
  device.claims.clear();
  device.hook_wire = WireOf("hooks of " + common::HexGuid(config.facts.node_guid));
  if (config.flash) {
    const FlashConfig& flash = *config.flash;
    const bool only_clears = !flash.file || flash.file->only_clears_bits;
    device.facts[0] = {flash.size, flash.sector_size, flash.page_size};
    const std::string key = FlashKey(_system, flash);
    device.chips[0] = {Wrap(std::make_shared<FlatMemory>(flash, LockOf(key)), only_clears),
                       WireOf(key)};
    device.claims.push_back(ClaimOf(flash));
  }
  for (const auto& [address, eeprom] : config.eeproms) {
    device.facts[address] = {eeprom.size, 0, 0};
    device.chips[address] = MakeEeprom(eeprom);
    device.claims.push_back(ClaimOf(eeprom));
  }
}

ServedChip ServedDevices::MakeEeprom(const EepromConfig& config) {
  if (config.file) {
    const std::string key = FileKey(_system, *config.file);
    return {Wrap(std::make_shared<FlatMemory>(*config.file, config.size, LockOf(key)), false),
            WireOf(key)};
  }
  const I2cConfig& i2c = *config.i2c;
  const std::string root = RootKey(_system, i2c.adapter);
  auto& wire = _i2c_wires[root];
  if (!wire) {
    // Its worker reads the name: it stays as it is.
    wire = std::make_unique<I2cWire>();
    wire->lock_file = _state / ("i2c-" + FileName(root) + ".lock");
  }
  const std::size_t channel =
      _channels.try_emplace(ChannelKey(i2c.adapter), _channels.size()).first->second;
  return {
      Wrap(std::make_shared<Eeprom>(i2c, config.size, channel, *wire, _options.reads_back), false),
      WireOf("i2c " + root)};
}

std::shared_ptr<Memory> ServedDevices::Wrap(std::shared_ptr<Memory> memory,
                                            bool only_clears_bits) const {
  if (!_options.is_dry_run) return memory;
  return std::make_shared<DryMemory>(std::move(memory), only_clears_bits);
}

void ServedDevices::LearnSize(ServedDevice& device) const {
  if (!device.config.flash || device.facts[0].size != 0) return;
  const FoundMtd found = FindMtd(_system, *device.config.flash->mtd);
  if (!found.error.empty()) throw protocol::Refusal(found.error);
  const std::uint64_t first = device.config.flash->first;
  const std::uint64_t size = found.size > first ? found.size - first : 0;
  device.facts[0].size = size - size % device.facts[0].sector_size;
}

}  // namespace serve
