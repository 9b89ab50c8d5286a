/// The state of one client's connection, without a socket: takes received bytes, and returns what
/// to send.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Frames.h"
#include "protocol/Handler.h"

namespace protocol {

/// What the owner of the connection must do next.
struct Step {
  enum Kind { SEND, WAIT, CLOSE, RESET };

  Kind kind;
  std::string bytes = {};          ///< to send
  std::uint32_t milliseconds = 0;  ///< to wait
};

/// Unframes requests, and frames the handler's answers. The handler is borrowed.
class Session {
 public:
  explicit Session(Handler& handler) : _handler(handler) {}

  /// Takes received bytes and returns the steps to take, in order.
  std::vector<Step> Feed(std::string_view bytes);

  /// Called with every message and its answer; may be empty.
  std::function<void(const std::string& request, const std::string& answer)> trace;

 private:
  void TakeMessage(const std::string& message, std::vector<Step>& steps);
  Answer Ask(const std::string& message);
  void SendPiece(std::vector<Step>& steps);
  void End(Step::Kind kind, std::vector<Step>& steps);

  Handler& _handler;
  MessageReader _incoming{MessageReader::Lines::KEPT};
  MessageWriter _outgoing;            ///< the answer being sent
  Answer::Delivery _delivery{};       ///< of that answer
  std::optional<Guids> _burn_images;  ///< the next message is an image for these
  bool _is_over = false;
};

}  // namespace protocol
