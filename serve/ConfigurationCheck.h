/// Whether this machine has what a configuration names.
#pragma once

#include <string>
#include <vector>

#include "serve/Configuration.h"
#include "serve/System.h"

namespace serve {

/// What would keep devices of the configuration from being burnt, each with the device that it is
/// of; empty where nothing would. Reads what the kernel tells of devices, and the sizes of plain
/// files. Opens no device. The memory of a device that is prepared may be missing still.
std::vector<std::string> CheckConfiguration(System& system, const Configuration& configuration);

}  // namespace serve
