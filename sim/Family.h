/// The families of devices, by how they keep and boot their images, and what the boot code takes
/// for a valid one. It is written down here once more on purpose: what the burn takes them for is
/// on trial.
#pragma once

#include <span>

#include "src/FwImage.h"

namespace sim {

enum class Family {
  UNKNOWN,          ///< fwpush burns it nowhere
  GENERIC,          ///< one image, no slots
  BOOT_RECORDS,     ///< two slots, each of which begins with a boot record
  POINTER_SECTORS,  ///< two slots, each with a pointer sector, and an invariant sector before all
};

/// By the algorithm that fwpush chooses for the type.
Family FamilyOf(DeviceType type);
/// Whether fwpush burns this type into a serial flash.
bool IsFlash(DeviceType type);

constexpr u_int32_t VALID_SIGNATURE = 0xCB84CB84;
constexpr u_int32_t INVARIANT_MARKER = 0x24;  ///< where the invariant sector bears the signature

/// The record that begins a pointer sector: image address, image size, signature, more, CRC.
constexpr u_int32_t PS_RECORD_SIZE = 264;
constexpr u_int32_t PS_SIGNATURE_OFFSET = 8;
constexpr u_int32_t PS_CRC_OFFSET = 260;  ///< also how many bytes the CRC covers

/// The record that begins the image of a family with boot records.
constexpr u_int32_t BOOT_RECORD_SIZE = 16;
constexpr u_int8_t BOOT_RECORD_SUM = 0xAB;      ///< of its bytes, modulo 256
constexpr u_int32_t BOOT_RECORD_MARK = 7;       ///< the byte that is 1 in a first record not valid
constexpr u_int32_t BOOT_RECORD_HELD_BACK = 4;  ///< bytes that a burn writes last

/// The CRC of `bytes`, as a word of an image holds it.
u_int32_t CrcOf(std::span<const u_int8_t> bytes);

/// The image's device map.
const FwImage::Conv& MapOf(const FwImage& image);

}  // namespace sim
