#include "protocol/DeviceFacts.h"

#include <algorithm>
#include <set>

#include "common/Text.h"
#include "protocol/Answer.h"

namespace protocol {

namespace {

bool IsWord(const std::string& text) {
  return !text.empty() && text.find_first_of(" \t\r\n{}") == std::string::npos;
}

}  // namespace

std::string WhyNotAdded(const DeviceFacts& device, std::map<Guid, Guid>& taken) {
  if (!IsWord(device.name) || !IsWord(device.attr)) {
    return "a device's name and attribute must each be one word";
  }
  if (device.port_guids.empty()) return "a device must have a port";
  std::set<Guid> guids(device.port_guids.begin(), device.port_guids.end());
  if (guids.size() != device.port_guids.size()) return "two ports with one GUID";
  guids.insert(device.node_guid);
  for (const Guid guid : guids) {
    if (taken.contains(guid)) return "GUID " + common::HexGuid(guid) + " stands for two devices";
  }
  for (const Guid guid : guids) taken[guid] = device.node_guid;
  return {};
}

std::string RecordElements(const DeviceFacts& device, std::size_t number) {
  std::string elements;
  for (std::size_t port = 0; port < device.port_guids.size(); ++port) {
    if (port > 0) elements += " ";
    elements += RecordElement({.device = number,
                               .port = port + 1,
                               .system_guid = device.sys_guid,
                               .node_guid = device.node_guid,
                               .port_guid = device.port_guids[port],
                               .ports = device.declared_ports,
                               .name = device.name,
                               .attribute = device.attr});
  }
  return elements;
}

std::string NoSuchDevice(Guid guid) { return DeviceError(guid, "No such device"); }

std::optional<std::string> ElementWithoutMemory(const Request& request, const DeviceFacts& device,
                                                bool has_flash, const ChipFacts* chip) {
  const auto& memory = request.command->memory;
  if (memory && (*memory == Memory::FLASH) != has_flash) {
    throw Refusal(has_flash ? "Device has a flash" : "Device has no flash");
  }
  switch (request.command->action) {
    case Action::VSD:
      return DataElement(device.vsd, device.vsd.size());
    case Action::BSN:
      return BsnElement(device.bsn);
    case Action::START:
    case Action::STOP:
      return ACK;
    case Action::BURN:
      return std::nullopt;
    default:
      break;
  }
  if (chip == nullptr || (chip->sector_size != 0) != has_flash) {
    throw Refusal("No chip at this address");
  }
  if (request.command->action == Action::ATTRIBUTES) {
    return AttributesElement(chip->sector_size, chip->size, chip->page_size);
  }
  const bool is_erase = request.command->action == Action::ERASE;
  const std::uint32_t size = is_erase ? 1 : request.size;
  if (request.offset > chip->size || chip->size - request.offset < size) {
    throw Refusal("Address out of range");
  }
  const std::uint32_t sector = chip->sector_size;
  if (is_erase && (sector == 0 || request.offset % sector != 0)) {
    throw Refusal("Not the start of a sector");
  }
  return std::nullopt;
}

std::optional<std::string> ElementWithoutMemory(const Request& request, const DeviceFacts& device,
                                                const ChipFactsByAddress& chips) {
  const auto found = chips.find(request.chip);
  const bool has_flash =
      std::ranges::any_of(chips, [](const auto& chip) { return chip.second.sector_size != 0; });
  return ElementWithoutMemory(request, device, has_flash,
                              found == chips.end() ? nullptr : &found->second);
}

}  // namespace protocol
