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
                                 std::chrono::milliseconds patience = std::chrono::seconds(20)) {
    if (!Send(Frame(request))) return {};
    return Receive(patience);
  }
  /// Sends bytes as they are; false where the connection has ended.
  bool Send(std::string_view bytes) { return common::SendAll(_socket.Get(), bytes); }
  /// Receives the answer to a request that was sent, as Ask does.
  std::optional<std::string> Receive(std::chrono::milliseconds patience = std::chrono::seconds(20));
  /// The next bytes as they come; empty where the connection ends first. Throws std::runtime_error
  /// where nothing comes for `patience`.
  std::string ReceiveBytes(std::chrono::milliseconds patience = std::chrono::seconds(20));

 private:
  common::Descriptor _socket;
  MessageReader _answers{MessageReader::Lines::JOINED};
};

}  // namespace protocol
