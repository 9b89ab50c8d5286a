/// The state of one client's connection, without a socket: takes received bytes, and returns what
/// to send.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/AsyncHandler.h"
#include "protocol/Frames.h"

namespace protocol {

/// What the owner of the connection must do next.
struct Step {
  enum Kind { SEND, WAIT, CLOSE, RESET };

  Kind kind;
  std::string bytes = {};          ///< to send
  std::uint32_t milliseconds = 0;  ///< to wait
};
using Steps = std::vector<Step>;

/// Unframes requests, and frames the handler's answers. The handler is borrowed; it is told that
/// the client is connected, and once that it is no more.
///
/// While a request is under way, further input is kept, up to the size of the longest message, and
/// nothing is done about it.
class Session {
 public:
  explicit Session(AsyncHandler& handler, ClientId client = 0, const std::string& peer = {},
                   std::size_t max_message = MAX_MESSAGE);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() { Close(); }

  /// Takes received bytes and returns the steps to take, in order.
  Steps Feed(std::string_view bytes);
  /// Goes on with input that was kept. Call it when the steps of `later` are taken.
  Steps Resume();

  /// Whether a request is under way.
  bool IsWaiting() const { return _is_waiting; }
  /// No request is accepted any more: the next one closes the connection.
  void Finish() { _is_finishing = true; }
  /// Whether all that will ever be answered is answered, after Finish.
  bool IsFinished() const { return _is_finishing && !_is_waiting && _outgoing.IsDone(); }
  /// The connection has ended. A request that is under way gets no answer.
  void Close();

  /// Called with the steps for what is answered after Feed or Resume have returned: an answer, or
  /// what keeps the client waiting. May be empty where the handler answers at once.
  std::function<void(Steps steps)> later;
  /// Called with every message and its answer; may be empty.
  std::function<void(const std::string& request, const std::string& answer)> trace;

 private:
  class PendingReply;

  void Keep(MessageReader::Event event, Steps& steps);
  void TakeKept(Steps& steps);
  void TakeEvent(MessageReader::Event& event, Steps& steps);
  void TakeMessage(std::string& message, Steps& steps);
  void TakeAnswer(Answer answer);
  void KeepWaiting();
  void SendAnswer(Answer answer, Steps& steps);
  void SendPiece(Steps& steps);
  void End(Step::Kind kind, Steps& steps);

  AsyncHandler& _handler;
  ClientId _client;
  std::size_t _max_message;  ///< bytes
  MessageReader _incoming;
  std::deque<MessageReader::Event> _kept;
  std::size_t _kept_size = 0;            ///< bytes
  std::string _request;                  ///< that is under way
  std::shared_ptr<PendingReply> _reply;  ///< to it; used again unless the handler keeps it
  Steps* _steps = nullptr;               ///< of the call that asks the handler
  MessageWriter _outgoing;               ///< the answer being sent
  Answer::Delivery _delivery{};          ///< of that answer
  std::optional<Guids> _burn_images;     ///< the next message is an image for these
  bool _is_waiting = false;
  bool _is_finishing = false;
  bool _is_over = false;
  bool _is_closed = false;
};

}  // namespace protocol
