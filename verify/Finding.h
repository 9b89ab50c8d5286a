/// The result of verifying one device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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
  bool operator==(const Difference&) const = default;
};

/// Whether the invariant sector of a flash is as a burn of the image leaves it. The device does not
/// boot without a whole one, whatever its slots hold.
enum class InvariantSector {
  NONE,  ///< not a device with pointer sectors, or not in the image
  NOT_COMPARED,
  IDENTICAL,
  DIFFERENT,  ///< the one of another release, or not whole: which of them is not known
};

struct DeviceFinding {
  enum State { IDENTICAL, DIFFERENT, UNREACHABLE, UNREADABLE };

  device::Guid guid = 0;  ///< as it was asked for
  State state = UNREADABLE;
  std::string reason;                      ///< a remark on the state; "" where there is none
  std::string failure;                     ///< the server failed, or the memory was not saved
  bool knows_slots = false;                ///< whether the boot records were read
  std::vector<std::uint32_t> valid_slots;  ///< that boot, by their records
  InvariantSector invariant_sector = InvariantSector::NONE;
  std::vector<std::uint32_t> slots;     ///< that were compared; empty where all sections were
  std::size_t compared = 0;             ///< bytes
  std::size_t different = 0;            ///< of them
  std::vector<Difference> differences;  ///< the first of them

  /// Whether the invariant sector, as far as it is known, lets the device boot.
  bool IsInvariantSectorKnown() const {
    return invariant_sector == InvariantSector::NONE ||
           invariant_sector == InvariantSector::IDENTICAL;
  }
  /// The slot that boots: the first valid one; nothing where that is not known.
  std::optional<std::uint32_t> Boots() const {
    if (valid_slots.empty() || !IsInvariantSectorKnown()) return std::nullopt;
    return valid_slots.front();
  }
  bool WasRead() const { return state == IDENTICAL || state == DIFFERENT; }
  bool operator==(const DeviceFinding&) const = default;
};

/// "identical", "different", "unreachable" or "unreadable".
const char* Name(DeviceFinding::State state);

/// A finding as bytes, for another process on the same machine; and back. Nothing for bytes that
/// are not a whole finding.
std::string Pack(const DeviceFinding& finding);
std::optional<DeviceFinding> Unpack(std::string_view bytes);

}  // namespace verify
