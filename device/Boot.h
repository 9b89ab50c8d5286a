/// The verdict "boots": whether a device's boot code would start the image in a slot. It looks at
/// the slot's record and at nothing else; whether the image behind the record is whole is another
/// verdict (device/Whole.h).
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "device/Bytes.h"
#include "device/Image.h"

namespace device {

inline constexpr std::uint32_t VALID_SIGNATURE = 0xCB84CB84;
/// Where the invariant sector of a flash that is prepared for failsafe burns bears the signature.
inline constexpr std::uint32_t FAILSAFE_MARKER = 0x24;

/// The record that begins a pointer sector, by offset: image address, image size, signature, more,
/// and a CRC over all that stands before it.
inline constexpr std::uint32_t POINTER_RECORD_SIZE = 264;
inline constexpr std::uint32_t RECORD_ADDR = 0;
inline constexpr std::uint32_t RECORD_IMAGE_SIZE = 4;
inline constexpr std::uint32_t RECORD_SIGNATURE = 8;
inline constexpr std::uint32_t RECORD_CRC = 260;  ///< also how many bytes it covers

/// The record that begins a slot of a device without pointer sectors.
inline constexpr std::uint32_t BOOT_RECORD_SIZE = 16;
inline constexpr std::uint32_t BOOT_RECORD_SUM = 0xAB;  ///< of its bytes, modulo 256
inline constexpr std::uint32_t FIRST_INVALID_MARK = 7;  ///< 1 here: no valid record of a first slot

/// A moved image starts behind the invariant sector and two pointer sectors.
inline constexpr std::uint32_t FIRST_IMAGE_SECTOR = 3;

/// Where a device keeps what its boot code looks at.
struct BootLayout {
  SlotKind kind = SlotKind::POINTER_SECTORS;   ///< never NONE
  std::array<std::uint32_t, SLOTS> records{};  ///< addresses
  std::uint32_t sector_size = 0;               ///< 0 for a memory without sectors

  bool HasPointerSectors() const { return kind == SlotKind::POINTER_SECTORS; }
  std::uint32_t RecordSize() const {
    return HasPointerSectors() ? POINTER_RECORD_SIZE : BOOT_RECORD_SIZE;
  }
  bool operator==(const BootLayout&) const = default;
};

/// Where the image's device has its records; nullopt if the device has no slots or the image gives
/// no address for one.
std::optional<BootLayout> LayoutOf(const Image& image, std::uint32_t sector_size);

/// The sum of the bytes of a boot record, or of some of them, modulo 256.
std::uint32_t BootRecordSum(View record);
/// Whether boot code takes the record of `slot` for a valid one. `record` must hold RecordSize
/// bytes.
bool RecordBoots(SlotKind kind, std::uint32_t slot, View record);
/// Whether a pointer sector's record bears the signature, which is all that a burn reads.
bool RecordIsSigned(View record);

/// The same, of a whole memory; false if the record lies past the end of the memory.
bool SlotBoots(const BootLayout& layout, std::uint32_t slot, View memory);
bool SlotIsSigned(const BootLayout& layout, std::uint32_t slot, View memory);
/// The slot that the boot code starts: the first where both boot.
std::optional<std::uint32_t> SlotThatBoots(const BootLayout& layout, View memory);

}  // namespace device
