/// What a bus server answers. docs/protocol.md has the forms.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "protocol/Request.h"

namespace protocol {

/// The answer to one request, and how it goes out. A server without faults sends each whole and at
/// once.
struct Answer {
  enum Manner {
    ANSWER,        ///< whole
    SILENCE,       ///< never
    CLOSE_BEFORE,  ///< the connection closes instead of it
    CLOSE_INSIDE,  ///< the connection closes in the middle of it
    CLOSE_AFTER,   ///< the connection closes behind it
    RESET,         ///< the connection is reset instead of it
  };

  std::string text = {};
  Manner manner = ANSWER;
  std::uint32_t milliseconds = 0;         ///< to wait first
  std::optional<Guids> burn_images = {};  ///< the next message is an image for these devices
};

/// An element of what went well and has nothing to tell.
inline const std::string ACK = "ACK";

/// The whole answer to a request that is refused.
std::string RequestError(const std::string& reason);
/// The element of a device that is.
std::string DeviceError(Guid guid, const std::string& reason);
/// The element of a device that was read: `size` bytes, from the first of `bytes` on. The last word
/// is filled up with what follows in `bytes`, or as erased memory reads.
std::string DataElement(std::span<const std::uint8_t> bytes, std::size_t size);
/// The element of a board serial number.
std::string BsnElement(std::span<const std::uint8_t> bytes);
/// The element of a flash; sizes in bytes.
std::string AttributesElement(std::uint32_t sector_size, std::size_t size);

/// One port of a device. Its words must be no empty ones, without blanks or braces.
struct DeviceRecord {
  std::size_t device = 0;  ///< its number
  std::size_t port = 0;    ///< its number, from 1
  Guid system_guid = 0;
  Guid node_guid = 0;
  Guid port_guid = 0;
  std::uint32_t ports = 0;  ///< of the device
  std::string name;
  std::string attribute;
};
std::string RecordElement(const DeviceRecord& record);

/// All elements as one answer. Where all devices of a request have the same to say in one word, it
/// is said once.
std::string JoinElements(const Request& request, const std::vector<std::string>& elements);

}  // namespace protocol
