/// The changes of a burn on each device, and the cuts: the places where power can be lost.
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

/// Where power is lost.
enum class CutKind {
  AFTER_WORD,   ///< after a whole word of a write
  TORN_WORD,    ///< some bits of a word are written
  TORN_ERASE,   ///< some cells of a sector are erased
  AFTER_ERASE,  ///< after a whole erase
};

/// A change of memory.
struct LoggedOperation {
  sim::Operation::Kind kind = sim::Operation::PROGRAM;
  std::uint8_t chip = 0;
  std::uint32_t offset = 0;
  std::uint32_t size = 0;
  device::Bytes bytes{};    ///< to be programmed; empty for an erase
  std::size_t request = 0;  ///< from 1

  /// Number of cuts: two for each word, or two for the erase, one torn and one whole.
  std::size_t Cuts() const;
};

/// Power is lost within or after one operation of one device.
struct Cut {
  std::size_t operation = 0;
  CutKind kind = CutKind::AFTER_WORD;
  std::size_t word = 0;
};

/// A pseudo-random number for a torn word, or a cell of a torn erase. The same seed and place give
/// the same number.
std::uint32_t Chance(unsigned seed, std::size_t operation, std::size_t place);

/// Access to a device's bytes, wherever they are stored.
struct CellAccess {
  std::function<std::uint8_t(std::uint32_t offset)> held;
  std::function<void(std::uint32_t offset, std::uint8_t byte)> set;
};

/// The n-th cut of `operation`, which is the `index`-th of its device.
Cut NthCut(const LoggedOperation& operation, std::size_t index, std::size_t n);

/// Changes a memory from its state at the previous cut to that at `cut`.
void ApplyCut(const LoggedOperation& operation, device::MemoryKind memory, const Cut& cut,
              unsigned seed, const CellAccess& access);

/// The changes of all devices, by node GUID. The points of a burn are the cuts of all devices,
/// numbered from 0, device by device.
class OperationLog {
 public:
  void Add(const sim::Operation& operation, std::size_t request);

  const std::vector<LoggedOperation>& Of(device::Guid guid) const;
  const std::map<device::Guid, std::vector<LoggedOperation>>& All() const { return _log; }
  std::size_t Count(sim::Operation::Kind kind) const;
  std::size_t PointsOf(device::Guid guid) const;
  std::size_t Points() const;

  /// The device and the operation of a point, and the number of the device's cuts before it.
  struct Place {
    device::Guid guid;
    const LoggedOperation& operation;
    std::size_t cuts;
  };
  /// Throws std::runtime_error where there is no such point.
  Place Locate(std::size_t point) const;

  /// Applies the first `cuts` cuts to a device that is as before the burn.
  void Replay(sim::Device& device, std::size_t cuts, unsigned seed) const;

 private:
  std::map<device::Guid, std::vector<LoggedOperation>> _log;
};

}  // namespace rehearse
