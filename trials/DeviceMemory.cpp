#include "trials/DeviceMemory.h"

namespace trials {

device::Identity IdentityOf(const sim::Device& device) {
  return {.node = device.node_guid,
          .ports = device.port_guids,
          .system = device.sys_guid,
          .declared_ports = device.declared_ports,
          .vsd = device.vsd,
          .bsn = device.bsn};
}

device::Memory MemoryOf(const sim::Device& device, const device::Image& image) {
  device::Memory memory;
  memory.sector_size = device.chips.begin()->second.SectorSize();
  const auto append = [&memory](device::View bytes) {
    memory.bytes.insert(memory.bytes.end(), bytes.begin(), bytes.end());
  };
  if (image.map.empty()) append(device.chips.at(0).Bytes());
  for (const device::MappedChip& mapped : image.map) {
    append(device.chips.at(mapped.chip).Bytes().first(mapped.size));
  }
  return memory;
}

void LoadMemory(sim::Device& device, const device::Image& image, const device::Memory& memory) {
  if (image.map.empty()) return device.chips.at(0).Load(0, memory.bytes);
  std::uint32_t base = 0;
  for (const device::MappedChip& mapped : image.map) {
    device.chips.at(mapped.chip).Load(0, memory.Part(base, mapped.size));
    base += mapped.size;
  }
}

}  // namespace trials
