/// Whether a burn writes what it may, in the order that keeps a device bootable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device/Burn.h"
#include "device/Bytes.h"

namespace device {

/// The address of what an image does not map: behind all others.
inline constexpr std::uint64_t NOT_MAPPED = ADDRESS_SPACE;

/// A write or an erase in the memory of a device.
struct MemoryChange {
  bool is_erase = false;
  std::uint64_t addr = 0;  ///< linear, of the first byte; or NOT_MAPPED
  std::uint32_t size = 0;  ///< bytes
  Bytes bytes{};           ///< to be programmed; empty for an erase
};

/// Part of the error about a write that belongs to an earlier step; the current step follows.
inline constexpr char OUT_OF_ORDER[] = ", when the burn is at ";

/// Checks that each change of one device belongs to the current step of its burn or to a later one.
/// Returns what is wrong with the first that does not; empty where there is none.
std::string OrderError(const std::vector<Step>& steps, const std::vector<MemoryChange>& changes);

}  // namespace device
