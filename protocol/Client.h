/// A simple client for tests and measurements of servers. The burner has its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/Descriptor.h"
#include "protocol/Frames.h"

namespace protocol {

/// A connection to a server on this machine.
class Client {
 public:
  /// Throws std::system_error.
  explicit Client(std::uint16_t port);

  /// Sends a request and returns its answer, asking for each further piece. Returns nothing where
  /// the connection ends first, or the server sends nothing for `patience`.
  std::optional<std::string> Ask(std::string_view request,
                                 std::chrono::milliseconds patience = std::chrono::seconds(20));

 private:
  common::Descriptor _socket;
  MessageReader _answers{MessageReader::Lines::JOINED};
};

}  // namespace protocol
