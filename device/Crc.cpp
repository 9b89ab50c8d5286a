#include "device/Crc.h"

namespace device {

namespace {

constexpr std::uint32_t POLYNOMIAL = 0x100B;
constexpr std::uint32_t REGISTER_BITS = 16;
constexpr std::uint32_t REGISTER_MASK = 0xFFFF;

/// The register after one bit more.
constexpr std::uint32_t ShiftIn(std::uint32_t crc, std::uint32_t bit) {
  const bool falls_out = (crc >> (REGISTER_BITS - 1) & 1) != 0;
  const std::uint32_t shifted = ((crc << 1) | bit) & REGISTER_MASK;
  return falls_out ? shifted ^ POLYNOMIAL : shifted;
}

}  // namespace

std::uint32_t CrcOf(View bytes) {
  std::uint32_t crc = REGISTER_MASK;
  for (const std::uint8_t byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) crc = ShiftIn(crc, std::uint32_t{byte} >> bit & 1);
  }
  for (std::uint32_t i = 0; i < REGISTER_BITS; ++i) crc = ShiftIn(crc, 0);
  return crc ^ REGISTER_MASK;
}

}  // namespace device
