/// Reads from devices through the burner's interface to memories. Never writes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "device/Image.h"

namespace verify {

/// One device takes no further part, and why; the others go on.
struct Unreadable {
  std::string reason;
};

/// The server or the connection has failed: nothing more can be read over it.
struct ServerFailure {
  std::string reason;
};

/// Reads from several EEPROM devices, or from one flash, over one connection. A device that fails
/// is dropped, with its reason, and is not asked again. All operations but those marked otherwise
/// throw ServerFailure. Single-threaded.
class DeviceReader {
 public:
  /// Maximum number of bytes that one request asks of one device, and of all of its devices
  /// together. A longer answer may exceed the maximum length of a line, or the time limit.
  static constexpr std::uint32_t MOST_FROM_ONE = 64 * 1024;
  static constexpr std::uint32_t MOST_FROM_ALL = 128 * 1024;
  /// Maximum size of one read from each of `devices`, in bytes: whole words.
  static std::uint32_t PieceSize(std::size_t devices);

  /// The image, which is borrowed, gives the kind of memory and the device map.
  DeviceReader(const device::Image& image, const std::set<device::Guid>& guids);
  DeviceReader(const DeviceReader&) = delete;
  DeviceReader& operator=(const DeviceReader&) = delete;
  ~DeviceReader();

  /// Connects to "TYPE:IP:PORT", and has the server list the devices. Drops those that it does not
  /// list.
  void Open(const std::string& server);

  // These throw nothing.
  bool IsFlash() const { return _image.IsFlash(); }
  /// How many devices one request may name; at least 1.
  std::uint32_t MostAtOnce() const;
  /// In bytes. 0 for a memory that is not a flash, or does not give it.
  std::uint32_t SectorSize() const;
  /// Where the memory ends; nothing for an EEPROM without a device map.
  std::optional<std::uint64_t> KnownEnd() const;
  /// Whether the range may be read, as far as the end is known.
  bool Holds(std::uint32_t start, std::uint64_t size) const;
  /// Whether the server has listed the device.
  bool IsListed(device::Guid guid) const;
  bool IsDropped(device::Guid guid) const { return !FailureReason(guid).empty(); }
  /// Why a device was dropped; "" where it was not.
  std::string FailureReason(device::Guid guid) const;
  /// Drops a device, for the first reason that is given.
  void Drop(device::Guid guid, const std::string& reason);

  /// That of a listed device; `guid` may be that of a port.
  device::Guid NodeGuid(device::Guid guid) const;

  /// Gets the bytes at an address of one device.
  using Take =
      std::function<void(device::Guid guid, std::uint32_t at, std::span<const std::uint8_t> bytes)>;
  /// Reads a range from all of `guids` that are not dropped, with one request for each piece. Calls
  /// `take` with the pieces, those of one device in order. Drops the devices that fail.
  void Read(const std::vector<device::Guid>& guids, std::uint32_t start, std::uint32_t size,
            const Take& take);
  /// The device's value of a field. Throws Unreadable, too.
  device::Bytes Field(device::Guid guid, device::FieldType type);

 private:
  class MapConvertor;
  class Interface;
  template <typename Remote>
  class InterfaceTo;

  void ReadPiece(const std::vector<device::Guid>& guids, std::uint32_t at, std::uint32_t size,
                 const Take& take);

  const device::Image& _image;
  const std::set<device::Guid> _guids;
  std::unique_ptr<MapConvertor> _convertor;  ///< used by _interface
  std::unique_ptr<Interface> _interface;
  std::map<device::Guid, std::string> _dropped;  ///< those that the interface has not dropped
};

}  // namespace verify
