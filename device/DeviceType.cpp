#include "device/DeviceType.h"

#include <algorithm>
#include <array>

namespace device {

std::span<const DeviceType> DeviceTypes() {
  using enum MemoryKind;
  using enum SlotKind;
  static constexpr auto TYPES = std::to_array<DeviceType>({
      {"RV61100", 61100, EEPROM, NONE},
      {"RV61300", 61300, EEPROM, BOOT_RECORDS},
      {"RV52100", 52100, FLASH, POINTER_SECTORS},
      {"RV52300", 52300, FLASH, POINTER_SECTORS},
      {"RV52310", 52310, FLASH, POINTER_SECTORS},
      {"RV52400", 52400, FLASH, POINTER_SECTORS},
      {"RV52410", 52400, FLASH, POINTER_SECTORS},  // burnt as one type
  });
  return TYPES;
}

const DeviceType* FindDeviceType(std::string_view keyword) {
  const auto types = DeviceTypes();
  const auto found = std::ranges::find(types, keyword, &DeviceType::keyword);
  return found == types.end() ? nullptr : &*found;
}

}  // namespace device
