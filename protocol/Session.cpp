#include "protocol/Session.h"

#include <exception>
#include <utility>

namespace protocol {

/// Passes an answer on to the session, once.
class Session::PendingReply : public Reply {
 public:
  void KeepWaiting() override {
    if (session) session->KeepWaiting();
  }
  void Send(Answer answer) override {
    if (Session* asker = std::exchange(session, nullptr)) asker->TakeAnswer(std::move(answer));
  }

  Session* session = nullptr;  ///< null when the request is answered, or the connection has ended
};

Session::Session(AsyncHandler& handler, ClientId client, const std::string& peer,
                 std::size_t max_message)
    : _handler(handler),
      _client(client),
      _max_message(max_message),
      _incoming(MessageReader::Lines::KEPT, max_message) {
  _handler.Connected(_client, peer);
}

Steps Session::Feed(std::string_view bytes) {
  Steps steps;
  TakeKept(steps);
  for (MessageReader::Event& event : _incoming.Feed(bytes)) {
    if (_is_over) break;
    if (_is_waiting) {
      Keep(std::move(event), steps);
    } else {
      TakeEvent(event, steps);
    }
  }
  return steps;
}

Steps Session::Resume() {
  Steps steps;
  TakeKept(steps);
  return steps;
}

void Session::Keep(MessageReader::Event event, Steps& steps) {
  _kept_size += event.text.size() + sizeof event;
  if (_kept_size > _max_message) {
    steps.push_back({Step::SEND, Frame(RequestError("more requests than are kept"))});
    End(Step::CLOSE, steps);
    return;
  }
  _kept.push_back(std::move(event));
}

void Session::TakeKept(Steps& steps) {
  while (!_kept.empty() && !_is_waiting && !_is_over) {
    MessageReader::Event event = std::move(_kept.front());
    _kept.pop_front();
    _kept_size -= event.text.size() + sizeof event;
    TakeEvent(event, steps);
  }
}

void Session::TakeEvent(MessageReader::Event& event, Steps& steps) {
  switch (event.kind) {
    case MessageReader::Event::PIECE:
      steps.push_back({Step::SEND, Frame(CONTINUE)});
      break;
    case MessageReader::Event::MESSAGE:
      TakeMessage(event.text, steps);
      break;
    case MessageReader::Event::TOO_LONG:
      steps.push_back({Step::SEND, Frame(RequestError("message too long"))});
      End(Step::CLOSE, steps);
      break;
  }
}

void Session::TakeMessage(std::string& message, Steps& steps) {
  if (!_outgoing.IsDone() && message == CONTINUE) {
    SendPiece(steps);
    return;
  }
  if (_is_finishing) return End(Step::CLOSE, steps);
  _request = std::move(message);
  // The handler of a simulator never keeps it, so that a request costs no allocation.
  if (!_reply || _reply.use_count() > 1) _reply = std::make_shared<PendingReply>();
  _reply->session = this;
  _is_waiting = true;
  _steps = &steps;
  const auto devices = std::exchange(_burn_images, {});
  try {
    if (devices) {
      _handler.StartBurn(_client, *devices, _request, _reply);
    } else {
      _handler.Start(_client, _request, _reply);
    }
  } catch (const std::exception& error) {
    // For example std::bad_alloc: this client gets an error, the others are served.
    _reply->Send({.text = RequestError(error.what())});
  }
  _steps = nullptr;
}

void Session::TakeAnswer(Answer answer) {
  _is_waiting = false;
  if (trace) trace(_request, answer.text);
  if (_steps) return SendAnswer(std::move(answer), *_steps);
  Steps steps;
  SendAnswer(std::move(answer), steps);
  later(std::move(steps));  // also where they are none: input may have been kept
}

void Session::KeepWaiting() {
  Step step{Step::SEND, "\r"};
  if (_steps) {
    _steps->push_back(std::move(step));
  } else {
    later({std::move(step)});
  }
}

void Session::SendAnswer(Answer answer, Steps& steps) {
  _burn_images = std::move(answer.burn_images);
  _delivery = answer.delivery;
  switch (_delivery) {
    case Answer::SILENCE:
      return;
    case Answer::CLOSE_BEFORE:
      return End(Step::CLOSE, steps);
    case Answer::RESET:
      return End(Step::RESET, steps);
    default:
      break;
  }
  if (answer.milliseconds > 0) steps.push_back({Step::WAIT, {}, answer.milliseconds});
  _outgoing = MessageWriter(std::move(answer.text));
  SendPiece(steps);
}

void Session::SendPiece(Steps& steps) {
  std::string frame = _outgoing.Next();
  if (_delivery == Answer::CLOSE_INSIDE) {
    frame.resize(frame.size() / 2);
    steps.push_back({Step::SEND, std::move(frame)});
    End(Step::CLOSE, steps);
    return;
  }
  steps.push_back({Step::SEND, std::move(frame)});
  if (_outgoing.IsDone() && _delivery == Answer::CLOSE_AFTER) End(Step::CLOSE, steps);
}

void Session::End(Step::Kind kind, Steps& steps) {
  steps.push_back({kind});
  _is_over = true;
  _is_waiting = false;
  if (_reply) _reply->session = nullptr;
}

void Session::Close() {
  if (std::exchange(_is_closed, true)) return;
  _is_over = true;
  _is_waiting = false;
  if (_reply) _reply->session = nullptr;
  _handler.Disconnected(_client);
}

}  // namespace protocol
