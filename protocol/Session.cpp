#include "protocol/Session.h"

#include <exception>
#include <utility>

namespace protocol {

std::vector<Step> Session::Feed(std::string_view bytes) {
  std::vector<Step> steps;
  for (const MessageReader::Event& event : _incoming.Feed(bytes)) {
    if (_is_over) break;
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
  return steps;
}

void Session::TakeMessage(const std::string& message, std::vector<Step>& steps) {
  if (!_outgoing.IsDone() && message == CONTINUE) {
    SendPiece(steps);
    return;
  }
  Answer answer = Ask(message);
  if (trace) trace(message, answer.text);
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

Answer Session::Ask(const std::string& message) {
  const auto devices = std::exchange(_burn_images, {});
  try {
    if (devices) return {.text = _handler.BurnImage(*devices, message)};
    return _handler.Execute(message);
  } catch (const std::exception& error) {
    // For example std::bad_alloc: this client gets an error, the others are served.
    return {.text = RequestError(error.what())};
  }
}

void Session::SendPiece(std::vector<Step>& steps) {
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

void Session::End(Step::Kind kind, std::vector<Step>& steps) {
  steps.push_back({kind});
  _is_over = true;
}

}  // namespace protocol
