/// A configuration to begin with.
#pragma once

#include <string>

#include "serve/System.h"

namespace serve {

/// What stands in the place of a value that the kernel cannot tell. A file that has it is refused.
inline constexpr const char* FILL_IN = "FILL IN";

/// A configuration with the NOR flashes and the EEPROMs with drivers that the kernel of this
/// machine knows of, and in comments its I2C adapters and what cannot be served. No bus is probed.
std::string DiscoverConfiguration(System& system);

}  // namespace serve
