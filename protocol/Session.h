/// One client's conversation with the bus server, without sockets: bytes in, things to do out.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/Fabric.h"

namespace sim {

/// What the owner of the connection is to do next.
struct Step {
  enum Kind { SEND, WAIT, CLOSE, RESET };

  Kind kind;
  std::string bytes;           ///< to send
  u_int32_t milliseconds = 0;  ///< to wait
};

/// Frames and unframes. Requests are executed on the fabric, which is borrowed.
class Session {
 public:
  explicit Session(Fabric& fabric) : _fabric(fabric) {}

  /// Takes bytes of the client and returns the steps to take, in order.
  std::vector<Step> Feed(std::string_view bytes);

  /// Told of every message and of the answer to it; may be empty.
  std::function<void(const std::string& request, const std::string& answer)> trace;

 private:
  void TakeLine(std::string_view line, std::vector<Step>& steps);
  void TakeMessage(std::vector<Step>& steps);
  void SendPiece(std::vector<Step>& steps);
  std::string EndPiece();

  Fabric& _fabric;
  std::string _line;                    ///< begun, not ended
  std::string _message;                 ///< pieces gathered so far
  std::string _piece;                   ///< lines of the piece in hand, each with its end
  std::string _outgoing;                ///< the answer being sent
  std::size_t _sent = 0;                ///< bytes of it
  Reply _reply;                         ///< being sent
  std::optional<GuidVec> _burn_images;  ///< the next message is an image for these
  bool _is_over = false;
};

}  // namespace sim
