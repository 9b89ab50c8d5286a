/// What a device has of its own, and the fields of an image that it fills.
#pragma once

#include <cstdint>
#include <vector>

#include "device/Bytes.h"
#include "device/Image.h"

namespace device {

/// One device's own values.
struct Identity {
  Guid node = 0;
  std::vector<Guid> ports;  ///< in port order
  Guid system = 0;
  std::uint32_t declared_ports = 0;  ///< as many as there are, on a healthy device
  Bytes vsd;
  Bytes bsn;

  /// The bytes that a burn puts into a field of that type, as long as the field: of SIGNATURE the
  /// value of a valid image. GUIDS are the node, two ports and the system; a device with one port
  /// gets the GUID after it for the second. Throws BurnError where the device has no such value.
  Bytes Value(FieldType type) const;
};

}  // namespace device
