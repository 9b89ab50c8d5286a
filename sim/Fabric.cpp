#include "sim/Fabric.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "device/ImageFile.h"
#include "sim/Filling.h"

namespace sim {

using protocol::Action;
using protocol::Answer;
using protocol::Refusal;
using protocol::Request;

namespace {

/// Why a device cannot have its chips; empty where it can.
std::string WrongChips(const Device& device) {
  const bool is_flash = device.kind == device::MemoryKind::FLASH;
  for (const auto& [address, chip] : device.chips) {
    if (chip.IsFlash() != is_flash) return "a chip of the other kind of memory";
  }
  if (is_flash && (device.chips.size() != 1 || !device.chips.contains(0))) {
    return "a flash is one chip, at address 0";
  }
  return {};
}

}  // namespace

Device& Fabric::Add(Device device) {
  std::string reason = protocol::WhyNotAdded(device, _node_of);
  if (!reason.empty()) throw std::invalid_argument(reason);
  reason = WrongChips(device);
  if (!reason.empty()) {
    std::erase_if(_node_of, [&](const auto& entry) { return entry.second == device.node_guid; });
    throw std::invalid_argument(reason);
  }
  return _devices.try_emplace(device.node_guid, std::move(device)).first->second;
}

void Fabric::CopyDevice(const Device& device) {
  Device copy;
  static_cast<protocol::DeviceFacts&>(copy) = device;
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
    if (!list.empty()) list += " ";
    list += protocol::RecordElements(device, number);
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
      elements.push_back(protocol::NoSuchDevice(guid));
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
  const auto found = device.chips.find(request.chip);
  Chip* const chip = found == device.chips.end() ? nullptr : &found->second;
  protocol::ChipFacts chip_facts;
  if (chip) chip_facts = {.size = chip->Size(), .sector_size = chip->SectorSize()};
  if (auto element =
          protocol::ElementWithoutMemory(request, device, device.kind == device::MemoryKind::FLASH,
                                         chip ? &chip_facts : nullptr)) {
    return *std::move(element);
  }
  switch (request.command->action) {
    case Action::ERASE:
      Erase(device, request.chip, request.offset, _fault);
      return protocol::ACK;
    case Action::READ:
      return protocol::DataElement(chip->Bytes().subspan(request.offset), request.size);
    case Action::WRITE:
      Program(device, request.chip, request.offset, request.data, _fault);
      return protocol::ACK;
    default:
      return protocol::ACK;  // the image comes with the next message
  }
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
