/// Simulated devices for tests, and interfaces to them that write down every request.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "src/utils.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/support.h"

constexpr Guid LEAF1 = 0x1000;
constexpr Guid LEAF2 = 0x2000;
constexpr Guid LEAF3 = 0x3000;

/// All `parts`, one after the other.
inline DataVec Joined(std::initializer_list<DataVec> parts) {
  DataVec all;
  for (const DataVec& part : parts) all << part;
  return all;
}

/// A number as it stands in a device's memory.
inline DataVec Number(u_int32_t value) {
  DataVec bytes;
  bytes << value;
  return bytes;
}

/// A device with two ports and as many EEPROMs of 0x2000 bytes, from address 0x50, as asked for.
inline sim::Device I2cDevice(Guid node_guid, int chips = 1) {
  sim::Device device;
  device.node_guid = node_guid;
  device.port_guids = {node_guid + 1, node_guid + 2};
  device.sys_guid = node_guid + 0xF;
  device.declared_ports = 2;
  for (int i = 0; i < chips; ++i) {
    device.chips.try_emplace(static_cast<u_int8_t>(0x50 + i),
                             sim::Chip(std::make_unique<sim::Cells>(0x2000), 0));
  }
  return device;
}

/// A device with two ports and a flash.
inline sim::Device FlashDevice(Guid node_guid, u_int32_t size = 0x100000,
                               u_int32_t sector_size = 0x10000) {
  sim::Device device = I2cDevice(node_guid, 0);
  device.kind = device::MemoryKind::FLASH;
  device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(size), sector_size));
  return device;
}

inline DataVec MemoryOf(const sim::Fabric& fabric, Guid guid, u_int8_t chip, u_int32_t offset,
                        u_int32_t size) {
  const auto bytes = fabric.Find(guid)->chips.at(chip).Bytes().subspan(offset, size);
  return DataVec(bytes.begin(), bytes.end());
}

/// An interface to a fabric in this process that writes down requests and opens up its inside.
template <typename Remote>
class Recorded : public Remote {
 public:
  explicit Recorded(sim::Fabric& fabric, u_int32_t log2_chunk_align = 5)
      : Remote(fabric, log2_chunk_align) {}

  using Remote::_devs_data;
  using Remote::_error_devs;
  using Remote::_last_result;
  using Remote::_multi_max;
  using Remote::AddDeviceRecord;
  using Remote::GatherData;
  using Remote::GenBaseRequest;
  using Remote::GenRwRequest;
  using Remote::ProcessResponse;

  /// The requests since the last call.
  std::vector<std::string> Requests() { return std::exchange(_requests, {}); }

 protected:
  BraidConn::Response Exchange(const std::string& request) override {
    _requests.push_back(request);
    return Remote::Exchange(request);
  }

 private:
  std::vector<std::string> _requests;
};

/// `count` adapters and an open interface to all of them, without a device map: linear addresses
/// are offsets in chip 0, so their chip is at address 0.
class FabricTest : public ConsoleTest {
 protected:
  using Requests = std::vector<std::string>;

  static sim::Device Adapter(Guid node_guid) {
    sim::Device device = I2cDevice(node_guid, 0);
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(0x2000), 0));
    return device;
  }

  void AddAdapters(const GuidSet& guids) {
    for (const Guid guid : guids) _fabric.Add(Adapter(guid));
  }

  /// Opens `rom` for the devices and forgets what that took.
  template <typename Rom>
  void OpenQuietly(Rom& rom, const GuidSet& guids) {
    rom.SetAddressConvertor(&_conv);
    rom.SetAccessDevices(guids);
    OutputOf([&] { rom.Open((_fabric.facts.type + ":host:1").c_str()); });
    rom.Requests();
  }

  void Fail(sim::Fault::Kind kind, const std::string& command, std::optional<Guid> device = {},
            const std::string& text = "") {
    sim::Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.device = device;
    fault.text = text;
    _fabric.faults.Add(fault);
  }

  /// Has the next request that names `command` answered with `text`.
  void AnswerNext(const std::string& command, const std::string& text) {
    Fail(sim::Fault::ANSWER, command, {}, text);
  }

  sim::Fabric _fabric;
  FwImage::Conv _conv;
};

using RecordedI2c = Recorded<InProcessI2c>;
using RecordedFlash = Recorded<InProcessFlash>;
