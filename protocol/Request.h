/// What a client may ask of a bus server, and how a request is read.
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
/// A device's identity on the fabric: its own, or that of one of its ports.
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

/// A word of the vocabulary.
struct Command {
  std::string_view word;
  Action action;
  std::optional<Memory> memory;  ///< that the devices must have; none where any will do
  std::size_t arguments;         ///< least number, after the devices

  /// Whether the request counts devices and names them.
  bool IsMulti() const { return word.ends_with("Multi"); }
};
std::span<const Command> Commands();

/// One request. What its command does not have is 0 or empty.
struct Request {
  const Command* command = nullptr;  ///< never null once it is parsed
  std::uint32_t count = 0;           ///< of devices, as the request declares it
  Guids devices;                     ///< in the order of the answer's elements
  std::uint8_t chip = 0;
  std::uint32_t size = 0;    ///< bytes
  std::uint32_t offset = 0;  ///< of the first byte in the chip
  Bytes data;                ///< to be written: `size` bytes
};

/// A request, or one device of it, is refused. The text says why, as the answer has it.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws Refusal.
Request ParseRequest(std::string_view text);

/// Refuses more devices than a server takes at once, and none where some are to be named. A
/// `multi_max` that is no number is no limit.
void CheckCount(const Request& request, std::string_view multi_max);

}  // namespace protocol
