/// The CRC that boot code checks, bit by bit. Written apart from the burner's, which it checks.
#pragma once

#include <cstdint>

#include "device/Bytes.h"

namespace device {

/// CRC-16 with polynomial 0x100B, initial value FFFF, most significant bit first, 16 zero bits
/// appended, complemented. A word of an image holds it with two zero bytes before it.
std::uint32_t CrcOf(View bytes);

}  // namespace device
