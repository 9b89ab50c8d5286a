/// What a server knows of a device without touching its memory, and the answers that follow from
/// that alone.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/Request.h"

namespace protocol {

inline constexpr std::size_t VSD_SIZE = 208;  ///< bytes
inline constexpr std::size_t BSN_SIZE = 64;   ///< bytes

/// What a device tells of itself.
struct DeviceFacts {
  Guid node_guid = 0;
  Guids port_guids;  ///< in port order
  Guid sys_guid = 0;
  std::uint32_t declared_ports =
      0;                        ///< as its records say; a healthy device has as many port GUIDs
  std::string name = "device";  ///< one word
  std::string attr = "none";    ///< one word
  Bytes vsd = Bytes(VSD_SIZE, 0);
  Bytes bsn = Bytes(BSN_SIZE, 0);
};

/// One chip of a device, as requests see it.
struct ChipFacts {
  std::uint64_t size = 0;         ///< bytes
  std::uint32_t sector_size = 0;  ///< bytes; 0: an EEPROM
  std::uint32_t page_size = 0;    ///< bytes of one program; 0: not known
};

/// By the address of requests; a flash is chip 0.
using ChipFactsByAddress = std::map<std::uint8_t, ChipFacts>;

/// Why a fabric cannot have such devices: a name that is not one word, no port, or a GUID that
/// stands twice. Empty where it can. `taken` gets the GUIDs of the device, each with its node GUID.
std::string WhyNotAdded(const DeviceFacts& device, std::map<Guid, Guid>& taken);

/// The records of one device, the `number`th of its server, from 1.
std::string RecordElements(const DeviceFacts& device, std::size_t number);

/// The element of a device that is not there.
std::string NoSuchDevice(Guid guid);

/// The element of a device for a request that needs no memory; nothing where its memory must be
/// read, written, erased or burnt. Throws Refusal where the device cannot take the request.
std::optional<std::string> ElementWithoutMemory(const Request& request, const DeviceFacts& device,
                                                const ChipFactsByAddress& chips);
/// Likewise, for a caller that has no such map: `chip` is the chip that the request addresses, null
/// where there is none.
std::optional<std::string> ElementWithoutMemory(const Request& request, const DeviceFacts& device,
                                                bool has_flash, const ChipFacts* chip);

}  // namespace protocol
