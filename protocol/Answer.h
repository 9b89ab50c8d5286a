/// Answers of a bus server. docs/protocol.md describes their form.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "protocol/Request.h"

namespace protocol {

/// The answer to one request, and how it is sent. Without faults, it is sent whole and at once.
struct Answer {
  enum Delivery {
    ANSWER,        ///< whole
    SILENCE,       ///< never
    CLOSE_BEFORE,  ///< the connection closes, and nothing is sent
    CLOSE_INSIDE,  ///< the connection closes in the middle of it
    CLOSE_AFTER,   ///< the connection closes after it
    RESET,         ///< the connection is reset, and nothing is sent
  };

  std::string text = {};
  Delivery delivery = ANSWER;
  std::uint32_t milliseconds = 0;         ///< to wait before it is sent
  std::optional<Guids> burn_images = {};  ///< the next message is an image for these devices
};

/// The element of a device whose request succeeded and has no data to return.
inline const std::string ACK = "ACK";

/// The whole answer to a request that is refused.
std::string RequestError(const std::string& reason);
/// The element of a device whose request is refused.
std::string DeviceError(Guid guid, const std::string& reason);
/// The element of a device that was read: the first `size` of `bytes`. The last word is filled up
/// with the bytes that follow, or with FF.
std::string DataElement(std::span<const std::uint8_t> bytes, std::size_t size);
/// The element of a board serial number.
std::string BsnElement(std::span<const std::uint8_t> bytes);
/// The element of a flash; sizes in bytes. A page size of 0 is left out.
std::string AttributesElement(std::uint32_t sector_size, std::uint64_t size,
                              std::uint32_t page_size = 0);

/// One port of a device. Its texts must not be empty, nor contain blanks or braces.
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

/// Joins the elements to one answer. Where every device of a request other than a read answers
/// ACK, the answer is a single ACK.
std::string JoinElements(const Request& request, const std::vector<std::string>& elements);

}  // namespace protocol
