#include "protocol/Frames.h"

#include <utility>

namespace protocol {

namespace {

/// Size of a piece in bytes; only the last one is smaller.
constexpr std::size_t PIECE_SIZE = 4000;

}  // namespace

std::string Frame(std::string_view message) { return FramePiece(message, true, true); }

std::string FramePiece(std::string_view piece, bool is_first, bool is_last) {
  std::string frame(is_first ? NEW_BUF : CONT_BUF);
  frame += "\n";
  frame += piece;
  frame += "\n";
  frame += is_last ? END_BUF : TO_BE_CONT;
  return frame + "\n";
}

std::optional<std::string> LineReader::Next() {
  const std::size_t end = _bytes.find('\n', _searched);
  if (end == std::string::npos) {
    _bytes.erase(0, std::exchange(_taken, 0));
    _searched = _bytes.size();
    return {};
  }
  std::string line = _bytes.substr(_taken, end - _taken);
  _taken = _searched = end + 1;
  return line;
}

std::vector<MessageReader::Event> MessageReader::Feed(std::string_view bytes) {
  std::vector<Event> events;
  if (_is_over) return events;
  _lines.Feed(bytes);
  const auto is_too_long = [this](std::size_t size) {
    return size + _piece.size() + _message.size() > _max_message;
  };
  while (auto line = _lines.Next()) {
    _is_over = is_too_long(line->size());
    if (_is_over) break;
    if (_lines_of_piece == Lines::JOINED) {
      std::erase(*line, '\r');
    } else if (line->ends_with('\r')) {
      line->pop_back();
    }
    TakeLine(*line, events);
  }
  if (_is_over || is_too_long(_lines.Rest())) {
    _is_over = true;
    events.push_back({Event::TOO_LONG});
  }
  return events;
}

void MessageReader::TakeLine(std::string_view line, std::vector<Event>& events) {
  if (line == NEW_BUF) {
    _message.clear();
    _piece.clear();
  } else if (line == CONT_BUF) {
    _piece.clear();
  } else if (line == TO_BE_CONT) {
    EndPiece();
    events.push_back({Event::PIECE});
  } else if (line == END_BUF) {
    EndPiece();
    events.push_back({Event::MESSAGE, std::exchange(_message, {})});
  } else {
    _piece += line;
    if (_lines_of_piece == Lines::KEPT) _piece += "\n";
  }
}

void MessageReader::EndPiece() {
  // The sender adds a line feed to the end of each piece.
  if (_lines_of_piece == Lines::KEPT && !_piece.empty()) _piece.pop_back();
  _message += std::exchange(_piece, {});
}

std::string MessageWriter::Next() {
  const std::string_view piece = std::string_view(_message).substr(_sent, PIECE_SIZE);
  const bool is_first = _sent == 0;
  _sent += piece.size();
  _is_done = _sent == _message.size();
  return FramePiece(piece, is_first, _is_done);
}

}  // namespace protocol
