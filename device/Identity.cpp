#include "device/Identity.h"

#include <sstream>

#include "device/Boot.h"
#include "device/Burn.h"

namespace device {

namespace {

void AppendPorts(const Identity& identity, Bytes& value) {
  const std::size_t ports = identity.ports.size();
  std::ostringstream reason;
  if (ports != identity.declared_ports) {
    reason << "the device declares " << identity.declared_ports << " ports and has " << ports
           << " port GUIDs";
    throw BurnError(reason.str());
  }
  if (ports != 1 && ports != 2) {
    reason << "the GUIDS of a device with " << ports << " ports: it must have 1 or 2";
    throw BurnError(reason.str());
  }
  AppendGuid(value, identity.ports[0]);
  AppendGuid(value, ports == 1 ? identity.ports[0] + 1 : identity.ports[1]);
}

}  // namespace

Bytes Identity::Value(FieldType type) const {
  Bytes value;
  switch (type) {
    case FieldType::SIGNATURE:
      AppendWord(value, VALID_SIGNATURE);
      break;
    case FieldType::GUIDS:
      AppendGuid(value, node);
      AppendPorts(*this, value);
      AppendGuid(value, system);
      break;
    case FieldType::GUID:
      AppendGuid(value, node);
      break;
    case FieldType::SYS_GUID:
      AppendGuid(value, system);
      break;
    case FieldType::BSN:
      value = bsn;
      break;
    case FieldType::VSD:
      value = vsd;
      break;
  }
  return value;
}

}  // namespace device
