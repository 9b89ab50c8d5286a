/// What a burn changed on each device, and the places where the plug can be pulled in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "device/Bytes.h"
#include "device/DeviceType.h"
#include "sim/Fabric.h"

namespace rehearse {

/// Where the plug is pulled.
enum class CutKind {
  AFTER_WORD,   ///< after a whole word of a write
  TORN_WORD,    ///< a part of a word's bits written
  TORN_ERASE,   ///< a part of a sector's cells erased
  AFTER_ERASE,  ///< after a whole erase
};

/// A change of memory.
struct LoggedOperation {
  sim::Operation::Kind kind = sim::Operation::PROGRAM;
  std::uint8_t chip = 0;
  std::uint32_t offset = 0;
  std::uint32_t size = 0;
  device::Bytes bytes{};    ///< programmed; none for an erase
  std::size_t request = 0;  ///< from 1

  /// How many cuts it has: of each word, or of the erase, a torn one and a whole one.
  std::size_t Cuts() const;
};

/// A place to pull the plug: within or after one operation of one device.
struct Cut {
  std::size_t operation = 0;
  CutKind kind = CutKind::AFTER_WORD;
  std::size_t word = 0;
};

/// Chance for a torn word, or a torn erase's cell: the same for the same place and seed.
std::uint32_t Chance(unsigned seed, std::size_t operation, std::size_t place);

/// A device's bytes, however they are kept: what is there, and how to set it.
struct CellAccess {
  std::function<std::uint8_t(std::uint32_t offset)> held;
  std::function<void(std::uint32_t offset, std::uint8_t byte)> set;
};

/// The n-th cut of `operation`, which is the `index`-th of its device.
Cut NthCut(const LoggedOperation& operation, std::size_t index, std::size_t n);

/// Brings a memory from the cut before to this one: a word, or a sector.
void ApplyCut(const LoggedOperation& operation, device::MemoryKind memory, const Cut& cut,
              unsigned seed, const CellAccess& access);

/// The changes of all devices, by node GUID. The points of a burn are the cuts of all devices, one
/// device after the other.
class OperationLog {
 public:
  void Add(const sim::Operation& operation, std::size_t request);

  const std::vector<LoggedOperation>& Of(device::Guid guid) const;
  const std::map<device::Guid, std::vector<LoggedOperation>>& All() const { return _log; }
  std::size_t Count(sim::Operation::Kind kind) const;
  std::size_t PointsOf(device::Guid guid) const;
  std::size_t Points() const;

  /// The device and the operation that a point lies in, and how many cuts of the device lie before
  /// it.
  struct Place {
    device::Guid guid;
    const LoggedOperation& operation;
    std::size_t cuts;
  };
  /// Throws std::runtime_error where there is no such point.
  Place Locate(std::size_t point) const;

  /// Brings a device, which is as before the burn, through its first `cuts` cuts.
  void Replay(sim::Device& device, std::size_t cuts, unsigned seed) const;

 private:
  std::map<device::Guid, std::vector<LoggedOperation>> _log;
};

}  // namespace rehearse
