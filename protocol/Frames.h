/// How messages go over a connection: lines, frames and pieces, for either end. The burner has its
/// own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace protocol {

// The marker lines. They have no blanks about them.
inline constexpr std::string_view NEW_BUF = "NEW_BUF";        ///< begins a message
inline constexpr std::string_view CONT_BUF = "CONT_BUF";      ///< begins a further piece of one
inline constexpr std::string_view TO_BE_CONT = "TO_BE_CONT";  ///< ends a piece that is not the last
inline constexpr std::string_view END_BUF = "END_BUF";        ///< ends a message
/// What the receiver of a piece asks for the next with, as a message of its own.
inline constexpr std::string_view CONTINUE = "NsContinue";

/// A message in one piece.
std::string Frame(std::string_view message);
/// A piece of a message.
std::string FramePiece(std::string_view piece, bool is_first, bool is_last);

/// Cuts what comes over a connection into lines.
class LineReader {
 public:
  void Feed(std::string_view bytes) { _bytes += bytes; }
  /// The next whole line without its end, a carriage return before it included; none where more
  /// must come first.
  std::optional<std::string> Next();
  /// Bytes of a line that has begun, once Next gives nothing.
  std::size_t Rest() const { return _bytes.size() - _taken; }

 private:
  std::string _bytes;
  std::size_t _taken = 0;     ///< bytes handed out
  std::size_t _searched = 0;  ///< bytes, of which those behind _taken have no line end
};

/// Puts messages together from their lines and pieces.
class MessageReader {
 public:
  /// What stands between the lines of a piece: a server keeps the line feeds of an image, a client
  /// joins the lines of an answer.
  enum class Lines { KEPT, JOINED };

  struct Event {
    enum Kind {
      PIECE,    ///< a piece is complete, and its sender waits for CONTINUE
      MESSAGE,  ///< `text` is
      TOO_LONG  ///< a message is more than can be held; nothing follows
    };

    Kind kind;
    std::string text = {};
  };

  explicit MessageReader(Lines lines) : _lines_of_piece(lines) {}

  /// Takes bytes, cut anywhere, and tells what they complete, in order.
  std::vector<Event> Feed(std::string_view bytes);

 private:
  void TakeLine(std::string_view line, std::vector<Event>& events);
  void EndPiece();

  Lines _lines_of_piece;
  LineReader _lines;
  std::string _message;  ///< pieces gathered so far
  std::string _piece;    ///< lines of the piece in hand, each with its end
  bool _is_over = false;
};

/// Hands out a long message piece by piece.
class MessageWriter {
 public:
  MessageWriter() : _is_done(true) {}
  explicit MessageWriter(std::string message) : _message(std::move(message)) {}

  bool IsDone() const { return _is_done; }
  /// The next piece, framed. One call, even for an empty message, until it is done.
  std::string Next();

 private:
  std::string _message;
  std::size_t _sent = 0;  ///< bytes
  bool _is_done = false;
};

}  // namespace protocol
