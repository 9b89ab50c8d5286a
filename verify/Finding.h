/// The result of verifying one device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device/Bytes.h"

namespace verify {

/// A byte that differs.
struct Difference {
  std::string section;
  std::uint32_t offset;  ///< in the section
  std::uint32_t addr;    ///< linear
  std::uint8_t expected;
  std::uint8_t found;
};

struct DeviceFinding {
  enum State { IDENTICAL, DIFFERENT, UNREACHABLE, UNREADABLE };

  device::Guid guid = 0;  ///< as it was asked for
  State state = UNREADABLE;
  std::string reason;                      ///< a remark on the state; "" where there is none
  std::string failure;                     ///< the server failed, or the memory was not saved
  bool knows_slots = false;                ///< whether the boot records were read
  std::vector<std::uint32_t> valid_slots;  ///< that boot, by their records
  std::vector<std::uint32_t> slots;        ///< that were compared; empty where all sections were
  std::size_t compared = 0;                ///< bytes
  std::size_t different = 0;               ///< of them
  std::vector<Difference> differences;     ///< the first of them

  /// The slot that boots: the first valid one.
  std::optional<std::uint32_t> Boots() const {
    return valid_slots.empty() ? std::nullopt : std::optional(valid_slots.front());
  }
};

/// "identical", "different", "unreachable" or "unreadable".
const char* Name(DeviceFinding::State state);

}  // namespace verify
