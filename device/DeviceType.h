/// The device types: what memory each has, and how it keeps its images.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace device {

enum class MemoryKind {
  EEPROM,  ///< one or more I2C EEPROMs; a write sets bytes
  FLASH,   ///< one serial flash; a write clears bits, an erase sets a sector to FF
};

/// How a device tells which of its images is valid.
enum class SlotKind {
  NONE,             ///< one image, always taken for valid
  BOOT_RECORDS,     ///< two slots; each begins with a record whose bytes add up to a fixed value
  POINTER_SECTORS,  ///< two slots; a sector for each holds address, size, signature and CRC
};

/// One row of the table of device types.
struct DeviceType {
  std::string_view keyword;  ///< as image files have it
  std::uint32_t number;      ///< as messages have it; two keywords may share one
  MemoryKind memory;
  SlotKind slots;
  bool has_bsn;  ///< without one, a burn ignores BSN fields
};

std::span<const DeviceType> DeviceTypes();

/// The type of that keyword, letter by letter; null where there is none.
const DeviceType* FindDeviceType(std::string_view keyword);

/// The line, without its end, with which the burner warns of BSN fields that it ignores.
std::string BsnWarning(const DeviceType& type);

}  // namespace device
