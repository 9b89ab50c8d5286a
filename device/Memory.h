/// The memory of one device as an image addresses it: its chips end to end.
#pragma once

#include <cstdint>

#include "device/Bytes.h"

namespace device {

/// A run of bytes: [addr, addr + size).
struct Range {
  std::uint32_t addr = 0;
  std::uint32_t size = 0;

  std::uint64_t End() const { return std::uint64_t{addr} + size; }
  bool Holds(std::uint64_t start, std::uint64_t length) const {
    return start >= addr && start + length <= End();
  }
  bool Meets(std::uint64_t start, std::uint64_t length) const {
    return start < End() && addr < start + length;
  }
  bool operator==(const Range&) const = default;
};

struct Memory {
  Bytes bytes;
  std::uint32_t sector_size = 0;  ///< 0 for EEPROMs

  bool Holds(std::uint64_t addr, std::uint64_t size) const { return addr + size <= bytes.size(); }
  /// The word at `addr`, which the memory must hold; likewise Part.
  std::uint32_t Word(std::uint32_t addr) const { return WordAt(bytes, addr); }
  Bytes Part(std::uint32_t addr, std::uint32_t size) const;
  /// What a device answers to a read: whole words. Past the end they read as erased.
  Bytes Read(std::uint32_t addr, std::uint32_t size) const;
  /// Whether it holds these bytes at `addr`; false if it ends before the last of them.
  bool Has(std::uint32_t addr, View part) const;
};

}  // namespace device
