#include "device/DeviceType.h"

#include <algorithm>
#include <array>

namespace device {

std::span<const DeviceType> DeviceTypes() {
  using enum MemoryKind;
  using enum SlotKind;
  static constexpr auto TYPES = std::to_array<DeviceType>({
      {"RV61100", 61100, EEPROM, NONE, false},
      {"RV61300", 61300, EEPROM, BOOT_RECORDS, true},
      {"RV52100", 52100, FLASH, POINTER_SECTORS, true},
      {"RV52300", 52300, FLASH, POINTER_SECTORS, true},
      {"RV52310", 52310, FLASH, POINTER_SECTORS, true},
      {"RV52400", 52400, FLASH, POINTER_SECTORS, true},
      {"RV52410", 52400, FLASH, POINTER_SECTORS, true},  // burnt as one type
  });
  return TYPES;
}

const DeviceType* FindDeviceType(std::string_view keyword) {
  const auto types = DeviceTypes();
  const auto found = std::ranges::find(types, keyword, &DeviceType::keyword);
  return found == types.end() ? nullptr : &*found;
}

std::string BsnWarning(const DeviceType& type) {
  return "-W- *** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE " + std::to_string(type.number) +
         " ***";
}

}  // namespace device
