/// Reads from one device through the burner's interface to memories. Never writes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "device/Bytes.h"
#include "device/Image.h"

namespace verify {

/// A device answers, but something that is needed cannot be read from it.
struct Unreadable {
  std::string reason;
};

/// All operations but those marked otherwise throw Unreadable, and the interface's BraidError.
class DeviceReader {
 public:
  /// The image, which is borrowed, gives the kind of memory and the device map.
  DeviceReader(const device::Image& image, device::Guid guid);
  DeviceReader(const DeviceReader&) = delete;
  DeviceReader& operator=(const DeviceReader&) = delete;
  ~DeviceReader();

  /// Connects to "TYPE:IP:PORT", and has the server find the device.
  void Open(const std::string& server);

  /// The GUID that the constructor was given; may be that of a port.
  device::Guid AskedGuid() const { return _guid; }
  device::Guid NodeGuid() const;
  bool IsFlash() const { return _image.IsFlash(); }
  /// In bytes. 0 for a memory that is not a flash, or does not give it.
  std::uint32_t SectorSize() const;
  /// Where the memory ends; nothing for an EEPROM without a device map.
  std::optional<std::uint64_t> KnownEnd() const;
  /// Whether the range may be read, as far as the end is known. Throws nothing.
  bool Holds(std::uint32_t start, std::uint64_t size) const;

  device::Bytes Read(std::uint32_t start, std::uint32_t size);
  /// Calls `take` with the bytes, piece by piece and in order.
  void ReadPieces(std::uint32_t start, std::uint32_t size,
                  const std::function<void(std::span<const std::uint8_t>)>& take);
  /// The device's value of a field. Valid as long as this object.
  const device::Bytes& Field(device::FieldType type);

  // After a BraidError. Throw nothing.
  /// Why the device, or a request to it, failed; "" where neither did.
  std::string FailureReason() const;
  /// Whether the server has listed the device.
  bool IsListed() const;

 private:
  class MapConvertor;
  class Interface;
  template <typename Remote>
  class InterfaceTo;

  std::uint32_t LeftInChip(std::uint32_t at) const;

  const device::Image& _image;
  device::Guid _guid;
  std::unique_ptr<MapConvertor> _convertor;  ///< used by _interface
  std::unique_ptr<Interface> _interface;
  std::map<device::FieldType, device::Bytes> _fields;  ///< those read so far
};

}  // namespace verify
