/// Whether a burn writes what it may, in the order that keeps a device bootable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device/Burn.h"
#include "device/Image.h"
#include "sim/Fabric.h"

namespace trials {

/// A write or an erase in a simulated device.
struct MemoryChange {
  sim::Operation::Kind kind;
  device::Guid node;
  std::uint8_t chip;
  std::uint32_t offset;  ///< of its first byte in the chip
  std::uint32_t size;    ///< bytes
};
MemoryChange ChangeOf(const sim::Operation& operation);

/// Part of the error about a write that belongs to an earlier step; the current step follows.
inline constexpr char OUT_OF_ORDER[] = ", when the burn is at ";

/// Checks that each change of the device `node` belongs to the current step of the burn or to a
/// later one. Returns what is wrong with the first that does not; empty where there is none.
/// `image` tells where the chips lie.
std::string OrderError(const device::Image& image, const std::vector<device::Step>& steps,
                       device::Guid node, const std::vector<MemoryChange>& changes);

}  // namespace trials
