/// The simulated fabric: devices with their memories, and the execution of requests on them. No
/// sockets: a request is a text, and so is its answer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/Text.h"
#include "protocol/DeviceFacts.h"
#include "protocol/Handler.h"
#include "sim/ChipMemory.h"
#include "sim/Faults.h"

namespace sim {

using common::HexGuid;
using protocol::BSN_SIZE;
using protocol::VSD_SIZE;

/// One device.
struct Device : protocol::DeviceFacts {
  device::MemoryKind kind = device::MemoryKind::EEPROM;
  std::map<std::uint8_t, Chip> chips;  ///< by I2C address; a flash is chip 0
  bool has_power = true;               ///< without power, it ignores requests and does not answer
  std::vector<std::string> images;     ///< image files that it was filled with
};

/// A change of one chip. The observer sees it before it is applied.
struct Operation {
  enum Kind { PROGRAM, ERASE };

  Kind kind;
  Guid device;  ///< node GUID
  std::uint8_t chip;
  std::uint32_t offset;                 ///< of the first byte; for an erase, of the sector
  std::span<const std::uint8_t> bytes;  ///< to be programmed; empty for an erase
  std::uint32_t size;                   ///< bytes changed
};

/// What the server answers about itself.
struct ServerFacts {
  std::string type = "IB";          ///< I2C, PCI, PPC or IB
  std::string ifc_version = "2.2";  ///< answered as it stands
  std::string multi_max = "64";     ///< answered as it stands; if it is a number, it is the limit
};

/// The devices, and the handler of a bus server for them. Single-threaded.
class Fabric : public protocol::Handler {
 public:
  /// Adds a device. Throws std::invalid_argument where a GUID is in use, there is no port, the name
  /// or the attribute is not one word, or a flash does not have exactly one chip.
  Device& Add(Device device);
  /// Adds a copy of `device` as it is now, memory included. The copy is not kept in files, and its
  /// violations and erase counts start at 0.
  void CopyDevice(const Device& device);
  /// By node or port GUID; null when there is none.
  Device* Find(Guid guid);
  const Device* Find(Guid guid) const { return const_cast<Fabric*>(this)->Find(guid); }
  /// By node GUID, ascending.
  std::map<Guid, Device>& Devices() { return _devices; }
  const std::map<Guid, Device>& Devices() const { return _devices; }

  std::string BurnImage(const std::vector<Guid>& guids, const std::string& image) override;
  std::string Type() const override { return facts.type; }

  /// Programs a chip of the device, which must hold the bytes. With a `fault`, as that has it;
  /// throws protocol::Refusal where it cuts the write short.
  void Program(Device& device, std::uint8_t address, std::uint32_t offset, device::Bytes bytes,
               const Fault* fault = nullptr);
  /// Likewise erases the sector that holds `offset`.
  void Erase(Device& device, std::uint8_t address, std::uint32_t offset,
             const Fault* fault = nullptr);

  ServerFacts facts;
  FaultLayer faults;
  std::function<void(const Operation&)> observer;  ///< called before each change; may be empty

 private:
  /// Faults included.
  protocol::Answer Handle(const protocol::Request& request) override;
  protocol::Answer Run(const protocol::Request& request);
  std::string RunOn(const protocol::Request& request, Device& device);
  std::string ListDevices() const;

  std::map<Guid, Device> _devices;
  std::map<Guid, Guid> _node_of;  ///< the node GUID of every node and port GUID
  const Fault* _fault = nullptr;  ///< that fires at the current request; null where none does
};

}  // namespace sim
