#include "sim/Fabric.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "device/ImageFile.h"
#include "sim/Filling.h"

namespace sim {

using protocol::Action;
using protocol::Answer;
using protocol::Memory;
using protocol::Refusal;
using protocol::Request;

Device& Fabric::Add(Device device) {
  const auto is_word = [](const std::string& text) {
    return !text.empty() && text.find_first_of(" \t\r\n{}") == std::string::npos;
  };
  if (!is_word(device.name) || !is_word(device.attr)) {
    throw std::invalid_argument("a device's name and attribute must each be one word");
  }
  if (device.port_guids.empty()) throw std::invalid_argument("a device must have a port");
  std::set<Guid> guids(device.port_guids.begin(), device.port_guids.end());
  if (guids.size() != device.port_guids.size()) {
    throw std::invalid_argument("two ports with one GUID");
  }
  guids.insert(device.node_guid);
  for (const Guid guid : guids) {
    if (_node_of.contains(guid)) {
      throw std::invalid_argument("GUID " + HexGuid(guid) + " stands for two devices");
    }
  }
  for (const auto& [address, chip] : device.chips) {
    if (chip.IsFlash() != (device.kind == device::MemoryKind::FLASH)) {
      throw std::invalid_argument("a chip of the other kind of memory");
    }
  }
  if (device.kind == device::MemoryKind::FLASH &&
      (device.chips.size() != 1 || !device.chips.contains(0))) {
    throw std::invalid_argument("a flash is one chip, at address 0");
  }
  for (const Guid guid : guids) _node_of[guid] = device.node_guid;
  return _devices.try_emplace(device.node_guid, std::move(device)).first->second;
}

void Fabric::CopyDevice(const Device& device) {
  Device copy;
  copy.node_guid = device.node_guid;
  copy.port_guids = device.port_guids;
  copy.sys_guid = device.sys_guid;
  copy.declared_ports = device.declared_ports;
  copy.name = device.name;
  copy.attr = device.attr;
  copy.vsd = device.vsd;
  copy.bsn = device.bsn;
  copy.kind = device.kind;
  copy.has_power = device.has_power;
  copy.images = device.images;
  for (const auto& [address, chip] : device.chips) {
    Chip& copied =
        copy.chips
            .try_emplace(address, Chip(std::make_unique<Cells>(chip.Size()), chip.SectorSize()))
            .first->second;
    copied.Load(0, chip.Bytes());
  }
  Add(std::move(copy));
}

Device* Fabric::Find(Guid guid) {
  const auto node = _node_of.find(guid);
  return node == _node_of.end() ? nullptr : &_devices.at(node->second);
}

std::string Fabric::ListDevices() const {
  std::string list;
  std::size_t number = 0;
  for (const auto& [node_guid, device] : _devices) {
    ++number;
    if (!device.has_power) continue;
    for (std::size_t port = 0; port < device.port_guids.size(); ++port) {
      if (!list.empty()) list += " ";
      list += protocol::RecordElement({.device = number,
                                       .port = port + 1,
                                       .system_guid = device.sys_guid,
                                       .node_guid = node_guid,
                                       .port_guid = device.port_guids[port],
                                       .ports = device.declared_ports,
                                       .name = device.name,
                                       .attribute = device.attr});
    }
  }
  return list;
}

Answer Fabric::Handle(const Request& request) {
  _fault = faults.Match(std::string(request.command->word), request.devices);
  const auto fires = [this](Fault::Kind kind) { return _fault && _fault->kind == kind; };
  if (fires(Fault::SILENCE)) return {.delivery = Answer::SILENCE};
  if (fires(Fault::ANSWER)) return {.text = _fault->text};
  if (fires(Fault::POWER_OFF)) {
    Device* device = _fault->device            ? Find(*_fault->device)
                     : request.devices.empty() ? nullptr
                                               : Find(request.devices.front());
    if (device) device->has_power = false;
  }
  protocol::CheckCount(request, facts.multi_max);
  Answer answer = Run(request);
  if (fires(Fault::DELAY)) answer.milliseconds = _fault->milliseconds;
  if (fires(Fault::CLOSE_BEFORE)) answer.delivery = Answer::CLOSE_BEFORE;
  if (fires(Fault::CLOSE_INSIDE)) answer.delivery = Answer::CLOSE_INSIDE;
  if (fires(Fault::CLOSE_AFTER)) answer.delivery = Answer::CLOSE_AFTER;
  if (fires(Fault::RESET)) answer.delivery = Answer::RESET;
  return answer;
}

Answer Fabric::Run(const Request& request) {
  switch (request.command->action) {
    case Action::MULTI_MAX:
      return {.text = facts.multi_max};
    case Action::VERSION:
      return {.text = facts.ifc_version};
    case Action::LIST:
      return {.text = ListDevices()};
    default:
      break;
  }
  std::vector<std::string> elements;
  std::vector<Guid> willing;  // the devices that took the request
  for (const Guid guid : request.devices) {
    const bool is_hit = _fault && (_fault->device ? *_fault->device == guid : elements.empty());
    Device* device = Find(guid);
    if (device == nullptr) {
      elements.push_back(protocol::DeviceError(guid, "No such device"));
    } else if (!device->has_power) {
      elements.push_back(protocol::DeviceError(guid, "Device does not respond"));
    } else if (is_hit && _fault->kind == Fault::DEVICE_ERROR) {
      elements.push_back(protocol::DeviceError(guid, _fault->text));
    } else {
      const Fault* fault = std::exchange(_fault, is_hit ? _fault : nullptr);
      try {
        elements.push_back(RunOn(request, *device));
        willing.push_back(guid);
      } catch (const Refusal& refusal) {
        elements.push_back(protocol::DeviceError(guid, refusal.what()));
      }
      _fault = fault;
    }
  }
  if (_fault && _fault->kind == Fault::DROP_ELEMENT && !elements.empty()) elements.pop_back();
  if (_fault && _fault->kind == Fault::EXTRA_ELEMENT) elements.emplace_back("ACK");
  const bool is_alone = request.command->action == Action::BSN && elements.size() == 1;
  Answer answer{.text = is_alone ? elements.front() : protocol::JoinElements(request, elements)};
  if (request.command->action == Action::BURN && !willing.empty()) answer.burn_images = willing;
  return answer;
}

std::string Fabric::RunOn(const Request& request, Device& device) {
  const Action action = request.command->action;
  const bool is_flash = device.kind == device::MemoryKind::FLASH;
  const auto& memory = request.command->memory;
  if (memory && (*memory == Memory::FLASH) != is_flash) {
    throw Refusal(is_flash ? "Device has a flash" : "Device has no flash");
  }
  if (action == Action::VSD) return protocol::DataElement(device.vsd, device.vsd.size());
  if (action == Action::BSN) return protocol::BsnElement(device.bsn);
  if (action == Action::ATTRIBUTES) {
    const Chip& flash = device.chips.at(0);
    return protocol::AttributesElement(flash.SectorSize(), flash.Size());
  }
  if (action == Action::START || action == Action::STOP || action == Action::BURN) {
    return protocol::ACK;
  }

  const auto found = device.chips.find(request.chip);
  if (found == device.chips.end()) throw Refusal("No chip at this address");
  Chip& chip = found->second;
  if (action == Action::ERASE) {
    if (!chip.Holds(request.offset, 1)) throw Refusal("Address out of range");
    if (request.offset % chip.SectorSize() != 0) throw Refusal("Not the start of a sector");
    Erase(device, request.chip, request.offset, _fault);
    return protocol::ACK;
  }
  if (!chip.Holds(request.offset, request.size)) throw Refusal("Address out of range");
  if (action == Action::READ) {
    return protocol::DataElement(chip.Bytes().subspan(request.offset), request.size);
  }
  Program(device, request.chip, request.offset, request.data, _fault);
  return protocol::ACK;
}

void Fabric::Program(Device& device, std::uint8_t address, std::uint32_t offset,
                     device::Bytes bytes, const Fault* fault) {
  Chip& chip = device.chips.at(address);
  if (observer) {
    observer({Operation::PROGRAM, device.node_guid, address, offset, bytes,
              static_cast<std::uint32_t>(bytes.size())});
  }
  if (fault && fault->kind == Fault::WRITE_WRONG && !bytes.empty()) {
    Rng rng(fault->seed);
    const std::size_t at = rng() % bytes.size();
    bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ (1u << rng() % 8));
  }
  if (fault && fault->kind == Fault::CUT) {
    Rng rng(fault->seed);
    chip.ProgramPart(offset, bytes, rng);
    device.has_power = false;
    throw Refusal("Device does not respond");
  }
  chip.Program(offset, bytes);
}

void Fabric::Erase(Device& device, std::uint8_t address, std::uint32_t offset, const Fault* fault) {
  Chip& chip = device.chips.at(address);
  if (observer) {
    observer({Operation::ERASE, device.node_guid, address, offset, {}, chip.SectorSize()});
  }
  if (fault && fault->kind == Fault::CUT) {
    Rng rng(fault->seed);
    chip.ErasePart(offset, rng);
    device.has_power = false;
    throw Refusal("Device does not respond");
  }
  chip.EraseSector(offset);
}

std::string Fabric::BurnImage(const std::vector<Guid>& guids, const std::string& image) {
  std::string answer;
  bool is_well = true;
  for (const Guid guid : guids) {
    if (!answer.empty()) answer += " ";
    try {
      Fill(*this, guid, device::ParseImage(image, "image"), {});
      answer += protocol::ACK;
    } catch (const std::runtime_error& error) {
      is_well = false;
      answer += "{" + protocol::DeviceError(guid, error.what()) + "}";
    }
  }
  return is_well ? protocol::ACK : answer;
}

}  // namespace sim
