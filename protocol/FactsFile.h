/// What files of devices say in the same way, whatever the memories of the devices are. Each
/// function throws common::TomlError for a wrong value.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/TomlReader.h"
#include "protocol/DeviceFacts.h"

namespace protocol {

/// A GUID such as "0x00aa550000000010"; nothing where the key is missing.
std::optional<Guid> ReadGuid(common::TomlReader& reader, std::string_view key);

/// The facts of a [[device]]. It may have no port GUIDs, and declares as many ports as it has.
DeviceFacts ReadDeviceFacts(common::TomlReader& reader);

/// The 'type' of a [server]: I2C, PCI, PPC or IB. Nothing where the key is missing.
std::optional<std::string> ReadServerType(common::TomlReader& reader);
/// Its 'multi_max'; nothing where the key is missing.
std::optional<std::uint32_t> ReadMultiMax(common::TomlReader& reader);

}  // namespace protocol
