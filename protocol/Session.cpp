#include "protocol/Session.h"

#include <exception>
#include <utility>

namespace sim {

namespace {

/// Least size of a piece of a long answer.
constexpr std::size_t PIECE_SIZE = 4000;
/// Most bytes of one message: an image text, with room to spare.
constexpr std::size_t MAX_MESSAGE = std::size_t{256} << 20;

std::string Frame(const char* head, std::string_view content, const char* tail) {
  std::string frame = std::string(head) + "\n";
  frame.append(content);
  return frame + "\n" + tail + "\n";
}

}  // namespace

std::vector<Step> Session::Feed(std::string_view bytes) {
  std::vector<Step> steps;
  while (!bytes.empty() && !_is_over) {
    const std::size_t end = bytes.find('\n');
    _line.append(bytes.substr(0, end));
    if (_line.size() + _piece.size() + _message.size() > MAX_MESSAGE) {
      steps.push_back({Step::SEND, Frame("NEW_BUF", "ERROR:message too long", "END_BUF")});
      steps.push_back({Step::CLOSE, {}});
      _is_over = true;
    }
    if (end == std::string_view::npos) break;
    bytes.remove_prefix(end + 1);
    if (_line.ends_with('\r')) _line.pop_back();
    const std::string line = std::move(_line);
    _line.clear();
    if (!_is_over) TakeLine(line, steps);
  }
  return steps;
}

void Session::TakeLine(std::string_view line, std::vector<Step>& steps) {
  if (line == "NEW_BUF") {
    _message.clear();
    _piece.clear();
  } else if (line == "CONT_BUF") {
    _piece.clear();
  } else if (line == "TO_BE_CONT") {
    _message += EndPiece();
    steps.push_back({Step::SEND, Frame("NEW_BUF", "NsContinue", "END_BUF")});
  } else if (line == "END_BUF") {
    _message += EndPiece();
    TakeMessage(steps);
    _message.clear();
  } else {
    _piece.append(line).append("\n");
  }
}

std::string Session::EndPiece() {
  std::string piece = std::move(_piece);
  _piece.clear();
  if (!piece.empty()) piece.pop_back();  // the sender ends each piece with a line feed
  return piece;
}

void Session::TakeMessage(std::vector<Step>& steps) {
  if (_sent < _outgoing.size() && _message == "NsContinue") {
    SendPiece(steps);
    return;
  }
  try {
    if (const auto devices = std::exchange(_burn_images, {})) {
      _reply = {};
      _reply.text = _fabric.BurnImage(*devices, _message);
    } else {
      _reply = _fabric.Execute(_message);
      _burn_images = _reply.burn_images;
    }
  } catch (const std::exception& error) {
    // Such as no memory left: the other clients go on.
    _reply = {};
    _reply.text = Text("ERROR:", error.what());
  }
  if (trace) trace(_message, _reply.text);
  switch (_reply.manner) {
    case Reply::SILENCE:
      return;
    case Reply::CLOSE_BEFORE:
      steps.push_back({Step::CLOSE, {}});
      _is_over = true;
      return;
    case Reply::RESET:
      steps.push_back({Step::RESET, {}});
      _is_over = true;
      return;
    default:
      break;
  }
  if (_reply.milliseconds > 0) steps.push_back({Step::WAIT, {}, _reply.milliseconds});
  _outgoing = _reply.text;
  _sent = 0;
  SendPiece(steps);
}

void Session::SendPiece(std::vector<Step>& steps) {
  const std::string_view piece = std::string_view(_outgoing).substr(_sent, PIECE_SIZE);
  const bool is_last = _sent + piece.size() == _outgoing.size();
  std::string frame =
      Frame(_sent == 0 ? "NEW_BUF" : "CONT_BUF", piece, is_last ? "END_BUF" : "TO_BE_CONT");
  if (_reply.manner == Reply::CLOSE_INSIDE) {
    frame.resize(frame.size() / 2);
    steps.push_back({Step::SEND, frame});
    steps.push_back({Step::CLOSE, {}});
    _is_over = true;
    return;
  }
  steps.push_back({Step::SEND, std::move(frame)});
  _sent += piece.size();
  if (is_last && _reply.manner == Reply::CLOSE_AFTER) {
    steps.push_back({Step::CLOSE, {}});
    _is_over = true;
  }
}

}  // namespace sim
