/// The requests of the bus protocol, and their parser.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/Bytes.h"

namespace protocol {

using common::Bytes;
/// A device's identity on the fabric: its node GUID, or the GUID of one of its ports.
using Guid = std::uint64_t;
using Guids = std::vector<Guid>;

inline constexpr std::size_t WORD_SIZE = 4;  ///< bytes

enum class Memory { FLASH, EEPROM };

enum class Action {
  MULTI_MAX,   ///< how many devices a request may name
  VERSION,     ///< of the interface
  LIST,        ///< the devices
  WRITE,       ///< programs bytes
  READ,        ///< reads bytes
  ERASE,       ///< erases a sector
  START,       ///< begins a burn that is not failsafe
  STOP,        ///< ends it
  BURN,        ///< burns an image, which is the next message
  ATTRIBUTES,  ///< of the flash
  VSD,         ///< vendor-specific data
  BSN,         ///< the board serial number
};

/// A command word.
struct Command {
  std::string_view word;
  Action action;
  std::optional<Memory> memory;  ///< that the devices must have; nothing where any will do
  std::size_t arguments;         ///< minimum number of arguments after the devices

  /// Whether the request counts devices and names them.
  bool IsMulti() const { return word.ends_with("Multi"); }
};
std::span<const Command> Commands();

/// One request. Values that its command does not have are 0 or empty.
struct Request {
  const Command* command = nullptr;  ///< not null after parsing
  std::uint32_t count = 0;           ///< of devices, as the request declares it
  Guids devices;                     ///< in the order of the answer's elements
  std::uint8_t chip = 0;
  std::uint32_t size = 0;    ///< bytes
  std::uint32_t offset = 0;  ///< of the first byte in the chip
  Bytes data;                ///< to be written: `size` bytes
};

/// A request, or one device of it, is refused. The text is the reason in the answer.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws Refusal.
Request ParseRequest(std::string_view text);

/// Refuses a request with more devices than `multi_max`, and one without devices whose command
/// needs some. A `multi_max` that is not a number is no limit.
void CheckCount(const Request& request, std::string_view multi_max);

}  // namespace protocol
