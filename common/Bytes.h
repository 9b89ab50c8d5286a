/// Bytes of files and of devices.
#pragma once

#include <cstdint>
#include <vector>

namespace common {

using Bytes = std::vector<std::uint8_t>;

}  // namespace common
