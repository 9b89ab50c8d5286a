#include "sim/Family.h"

#include "src/BurnAlgorithm.h"
#include "src/main.h"

namespace sim {

Family FamilyOf(DeviceType type) {
  try {
    const auto memory = GetRomInterface(type, 0, false, false);
    const auto burn = GetBurnAlgorithm(type, memory.get(), true, false, false);
    if (dynamic_cast<const RV52100FailsafeBurn*>(burn.get())) return Family::POINTER_SECTORS;
    if (dynamic_cast<const RV61300FailsafeBurn*>(burn.get())) return Family::BOOT_RECORDS;
    return Family::GENERIC;
  } catch (const BraidError&) {
    return Family::UNKNOWN;
  }
}

bool IsFlash(DeviceType type) {
  try {
    const auto memory = GetRomInterface(type, 0, false, false);
    return dynamic_cast<const RemoteFlashInterface*>(memory.get()) != nullptr;
  } catch (const BraidError&) {
    return false;
  }
}

u_int32_t CrcOf(std::span<const u_int8_t> bytes) {
  Crc16 crc(false);
  crc.add(bytes);
  crc.finish();
  return crc.get();
}

const FwImage::Conv& MapOf(const FwImage& image) {
  // Asking changes nothing: the convertor is the image's own member.
  return static_cast<const FwImage::Conv&>(*const_cast<FwImage&>(image).GetAddressConvertor());
}

}  // namespace sim
