#include "fwimg/BurntParts.h"

#include <algorithm>

#include "device/Chip.h"

namespace fwimg {

namespace {

/// What [addr, addr + size) has of a piece of `length` bytes at `from`.
Extent Common(std::uint32_t from, std::size_t length, std::uint32_t addr, std::uint64_t size) {
  return {std::max(from, addr), std::min(from + std::uint64_t{length}, addr + size)};
}

}  // namespace

bool BurntParts::Burn(device::BurnKind kind, const device::Plan& plan, std::uint8_t own) {
  const device::Burn burn(_image.file.image, kind,
                          [own](FieldType type) { return Bytes(device::RowOf(type).size, own); });
  try {
    burn.Write(*this, _image.sector, plan);
  } catch (const device::BurnError&) {
    return false;
  }
  return true;
}

void BurntParts::Erase(std::uint32_t addr, std::uint64_t size) {
  for (Piece& part : _parts) {
    const Extent common = Common(part.addr, part.bytes.size(), addr, size);
    for (std::uint64_t at = common.from; at < common.end; ++at) {
      part.bytes[static_cast<std::size_t>(at - part.addr)] = device::ERASED;
    }
  }
}

void BurntParts::Program(std::uint32_t addr, View bytes) {
  const auto kind = _image.is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
  for (Piece& part : _parts) {
    const Extent common = Common(part.addr, part.bytes.size(), addr, bytes.size());
    for (std::uint64_t at = common.from; at < common.end; ++at) {
      std::uint8_t& cell = part.bytes[static_cast<std::size_t>(at - part.addr)];
      cell = device::Programmed(kind, cell, bytes[static_cast<std::size_t>(at - addr)]);
    }
  }
}

}  // namespace fwimg
