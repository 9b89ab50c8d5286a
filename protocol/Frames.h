/// Framing of messages on a connection, for client and server. The burner has its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace protocol {

// The marker lines, which have no leading or trailing blanks.
inline constexpr std::string_view NEW_BUF = "NEW_BUF";        ///< begins a message
inline constexpr std::string_view CONT_BUF = "CONT_BUF";      ///< begins a further piece of one
inline constexpr std::string_view TO_BE_CONT = "TO_BE_CONT";  ///< ends a piece that is not the last
inline constexpr std::string_view END_BUF = "END_BUF";        ///< ends a message
/// The message with which the receiver of a piece asks for the next one.
inline constexpr std::string_view CONTINUE = "NsContinue";

/// Maximum size of a message in bytes, unless its receiver says otherwise. An image text is the
/// longest message.
inline constexpr std::size_t MAX_MESSAGE = std::size_t{256} << 20;

/// Frames a message as one piece.
std::string Frame(std::string_view message);
/// Frames a piece of a message.
std::string FramePiece(std::string_view piece, bool is_first, bool is_last);

/// Splits received bytes into lines.
class LineReader {
 public:
  void Feed(std::string_view bytes) { _bytes += bytes; }
  /// The next complete line without its line feed; a carriage return before that stays. Nothing
  /// where more bytes are needed.
  std::optional<std::string> Next();
  /// Bytes of the incomplete line. Valid when Next has returned nothing.
  std::size_t Rest() const { return _bytes.size() - _taken; }

 private:
  std::string _bytes;
  std::size_t _taken = 0;     ///< bytes handed out
  std::size_t _searched = 0;  ///< bytes; from _taken up to here there is no line end
};

/// Assembles messages from their lines and pieces.
class MessageReader {
 public:
  /// Whether the lines of a piece keep their line feeds: a server keeps those of an image, a client
  /// joins the lines of an answer without them, and drops the carriage returns by which a server
  /// keeps it waiting.
  enum class Lines { KEPT, JOINED };

  struct Event {
    enum Kind {
      PIECE,    ///< a piece is complete, and its sender waits for CONTINUE
      MESSAGE,  ///< a message is complete: `text`
      TOO_LONG  ///< the message exceeds the limit; no event follows
    };

    Kind kind;
    std::string text = {};
  };

  explicit MessageReader(Lines lines, std::size_t max_message = MAX_MESSAGE)
      : _lines_of_piece(lines), _max_message(max_message) {}

  /// Takes received bytes, split anywhere, and returns what they complete, in order.
  std::vector<Event> Feed(std::string_view bytes);

 private:
  void TakeLine(std::string_view line, std::vector<Event>& events);
  void EndPiece();

  Lines _lines_of_piece;
  std::size_t _max_message;  ///< bytes
  LineReader _lines;
  std::string _message;  ///< pieces gathered so far
  std::string _piece;    ///< lines of the current piece, each with its line end
  bool _is_over = false;
};

/// Splits a long message into pieces.
class MessageWriter {
 public:
  MessageWriter() : _is_done(true) {}
  explicit MessageWriter(std::string message) : _message(std::move(message)) {}

  bool IsDone() const { return _is_done; }
  /// The next piece, framed. Call it until the message is done; an empty message has one piece.
  std::string Next();

 private:
  std::string _message;
  std::size_t _sent = 0;  ///< bytes
  bool _is_done = false;
};

}  // namespace protocol
