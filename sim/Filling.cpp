#include "sim/Filling.h"

#include <algorithm>

#include "common/Text.h"
#include "device/ImageFile.h"

namespace sim {

device::Identity IdentityOf(const Device& device) {
  return {.node = device.node_guid,
          .ports = device.port_guids,
          .system = device.sys_guid,
          .declared_ports = device.declared_ports,
          .vsd = device.vsd,
          .bsn = device.bsn};
}

std::uint32_t SectorSizeOf(const Device& device) {
  return device.chips.empty() ? 0 : device.chips.begin()->second.SectorSize();
}

device::Memory MemoryOf(const Device& device, const device::Image& image) {
  device::Memory memory{{}, SectorSizeOf(device)};
  const auto append = [&](std::uint8_t address, std::size_t size) {
    const auto chip = device.chips.find(address);
    const std::size_t start = memory.bytes.size();
    memory.bytes.resize(start + size, device::ERASED);
    if (chip == device.chips.end()) return;
    const device::View bytes = chip->second.Bytes();
    std::ranges::copy(bytes.first(std::min(size, bytes.size())),
                      memory.bytes.begin() + static_cast<std::ptrdiff_t>(start));
  };
  if (image.map.empty() && device.chips.contains(0)) append(0, device.chips.at(0).Size());
  for (const device::MappedChip& mapped : image.map) append(mapped.chip, mapped.size);
  return memory;
}

device::MemoryChange ChangeOf(const Operation& operation, const device::Image& image) {
  const auto addr = image.AddressWithin({operation.chip, operation.offset}, operation.size);
  return {.is_erase = operation.kind == Operation::ERASE,
          .addr = addr ? std::uint64_t{*addr} : device::NOT_MAPPED,
          .size = operation.size,
          .bytes = device::Bytes(operation.bytes.begin(), operation.bytes.end())};
}

void LoadMemory(Device& device, const device::Image& image, const device::Memory& memory) {
  if (image.map.empty()) return device.chips.at(0).Load(0, memory.bytes);
  std::uint32_t base = 0;
  for (const device::MappedChip& mapped : image.map) {
    device.chips.at(mapped.chip).Load(0, memory.Part(base, mapped.size));
    base += mapped.size;
  }
}

namespace {

/// Writes to the chips of a device at addresses of the image's device map.
class FillTarget : public device::BurnTarget {
 public:
  FillTarget(Fabric& fabric, Device& device, const device::Image& image)
      : _fabric(fabric), _device(device), _image(image) {}

  void Erase(std::uint32_t addr, std::uint64_t size) override {
    const std::uint32_t sector = SectorSizeOf(_device);
    for (std::uint64_t done = 0; done < size; done += sector) {
      const device::ChipPlace place = PlaceOf(static_cast<std::uint32_t>(addr + done), sector);
      _fabric.Erase(_device, place.chip, place.offset);
    }
  }
  void Program(std::uint32_t addr, device::View bytes) override {
    while (!bytes.empty()) {
      const std::uint64_t left = _image.LeftInChip(addr);
      const std::size_t size =
          static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), left));
      const device::ChipPlace place = PlaceOf(addr, size);
      const device::View part = bytes.first(size);
      _fabric.Program(_device, place.chip, place.offset, {part.begin(), part.end()});
      bytes = bytes.subspan(size);
      addr += static_cast<std::uint32_t>(size);
    }
  }

 private:
  device::ChipPlace PlaceOf(std::uint32_t addr, std::size_t size) const {
    const auto place = _image.PlaceOf(addr);
    if (!place) {
      throw FillError(common::Text("the device map ends before address ", std::hex, addr));
    }
    const auto chip = _device.chips.find(place->chip);
    if (chip == _device.chips.end()) throw FillError("No chip at this address");
    if (!chip->second.Holds(place->offset, size)) throw FillError("Address out of range");
    return *place;
  }

  Fabric& _fabric;
  Device& _device;
  const device::Image& _image;
};

}  // namespace

void Fill(Fabric& fabric, Guid guid, const device::Image& image, const device::FillPart& part) {
  Device* device = fabric.Find(guid);
  if (device == nullptr) throw FillError("No such device");
  if (!device->has_power) throw FillError("Device does not respond");
  FillTarget target(fabric, *device, image);
  try {
    device::Burn(image, device::BurnKind::FAILSAFE, IdentityOf(*device))
        .Fill(target, SectorSizeOf(*device), part);
  } catch (const device::UnevenCrcError& error) {
    throw FillError(
        common::Text("The CRC at address ", std::hex, error.crc.addr, " covers no whole words"));
  } catch (const device::BurnError& error) {
    throw FillError(error.what());
  }
}

void FillFromFile(Fabric& fabric, Guid guid, const std::string& image_file,
                  const device::FillPart& part) {
  try {
    Fill(fabric, guid, device::ReadImage(image_file), part);
  } catch (const device::ImageError& error) {
    throw FillError(error.what());
  }
}

}  // namespace sim
