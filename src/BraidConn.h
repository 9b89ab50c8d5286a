/// The connection to the bus server: lines over TCP, buffers between marker lines, and the syntax
/// of answers.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "BraidGeneral.h"

namespace BraidConn {

/// Maximum time between two received bytes. During a sector erase the server sends nothing for
/// seconds.
inline constexpr std::chrono::seconds MAX_SILENCE{30};

/// Maximum length of a line in bytes, without its end.
inline constexpr u_int32_t MAX_LINE = 1u << 24;

/// Maximum size of one buffer in bytes: all its lines, with their ends and markers. The answer to a
/// read has 18 bytes for each word, "{data 0x12345678}" and a blank, and 6 for each device. About
/// 1,800 devices fit at 32 KiB a read, the largest chunk of a write that is verified.
inline constexpr std::size_t MAX_BUFFER = std::size_t{1} << 28;

/// One TCP socket that exchanges lines. Failures throw BraidError, except that Bind, Listen and
/// Accept return BRAID_ERROR, and so does Connect on a closed socket. Used by one caller at a time.
class Socket {
 public:
  Socket() = default;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  virtual ~Socket();

  /// Creates the IPv4 stream socket.
  BraidResult Open();
  BraidResult Close();
  BraidResult Bind(int port);
  BraidResult Listen() const;

  /// Accepts one connection into `new_socket`, which then owns it. Overwrites this socket's address
  /// with that of the peer.
  BraidResult Accept(Socket& new_socket) const;

  /// Resolves `host` (a name or a dotted address) and connects. Waits as long as the system does.
  BraidResult Connect(const std::string& host, int port);

  /// Sends `line` and a line feed.
  BraidResult Puts(const std::string& line) const;

  /// Appends the next line to `line`, without its end and without carriage returns. Throws after
  /// MAX_SILENCE without a byte, at the end of the stream, and for a line longer than MAX_LINE.
  BraidResult Gets(std::string& line) const;

  /// Failures are ignored.
  void SetNonBlocking(bool on);

  bool IsOpen() const { return _sock != -1; }

 protected:
  /// Sends all of `parts` in order, with one system call when the system accepts them together.
  /// `parts` are empty afterwards. Throws when the connection is broken, or when the peer accepts
  /// no byte for MAX_SILENCE.
  void Send(std::span<std::string_view> parts) const;
  /// As Gets. Returns the number of bytes received, line end and carriage returns included.
  std::size_t TakeLine(std::string& line) const;
  /// Whether `line` is among the lines that are received and not yet returned by Gets.
  bool HasRead(std::string_view line) const;
  /// Throws the error of a failed Gets.
  [[noreturn]] void ThrowReadError(const std::string& reason,
                                   u_int32_t line = __builtin_LINE()) const;

  int _sock = -1;               ///< owned; -1 when closed
  mutable sockaddr_in _addr{};  ///< local after Bind, the peer's after Connect or Accept
  std::string _host;            ///< of a successful Connect
  int _port = 0;                ///< of a successful Connect
  std::chrono::milliseconds _max_silence = MAX_SILENCE;
  std::size_t _max_buffer = MAX_BUFFER;

 private:
  /// Waits for MAX_SILENCE at most; flushes the console unless the peer is ready within
  /// CONSOLE_DELAY. Returns as select does.
  int WaitForPeer(bool for_write) const;
  void WaitReadable() const;
  void WaitWritable() const;
  void Fill() const;
  [[noreturn]] void ThrowWriteError(u_int32_t line = __builtin_LINE()) const;

  // Bytes received beyond the requested line. Mutable, because a caller cannot see them.
  mutable std::vector<char> _buffer;
  mutable std::string_view _received;  ///< the part of _buffer not yet returned
};

/// A connection that exchanges whole buffers. A small buffer is the lines NEW_BUF, content and
/// END_BUF. A large buffer is sent in pieces; the peer must agree to each piece after the first.
class ClientSocket : public Socket {
 public:
  ClientSocket() { Open(); }

  /// Sends a small buffer with `request` as its content.
  BraidResult Request(const std::string& request) const;

  /// Receives one whole buffer into `response` and joins its lines without separators. Throws when
  /// it is larger than MAX_BUFFER.
  BraidResult Receive(std::string& response) const;

  /// Whether the end of a further buffer was received together with the last one (one read takes
  /// 64 KiB at most). When no request is outstanding this is a surplus answer: replies can no
  /// longer be matched to requests.
  bool HasSurplus() const;

  /// Sends one buffer, in pieces of about 4000 characters. Throws when the peer does not agree to
  /// the next piece.
  BraidResult Respond(const std::string& response) const;

  /// Always false: Socket detects the end of the stream.
  bool Eof() const { return false; }
  BraidResult Flush() { return BRAID_OK; }

 private:
  /// Sends three lines with one system call.
  void SendFrame(std::string_view head, std::string_view content, std::string_view tail) const;
};

/// Calls `each` with every element of a list, without its outermost braces, as a view into `text`.
/// Throws BraidError when a brace opens inside a word and, after the last element, when braces do
/// not balance.
void TclSplit(std::string_view text, const std::function<void(std::string_view element)>& each);
/// Replaces `elements` with the elements of the list.
void TclSplit(std::string_view text, std::vector<std::string_view>& elements);

/// Whether a text is an error answer: it begins with "ERROR" or "TARGET_ERROR".
bool TellsError(std::string_view text);

/// The text of an answer of the bus server, or of one element of it: an error, or a list of words
/// and braced lists.
class Response : public std::string {
 public:
  Response() = default;
  explicit Response(const std::string& text) : std::string(text) {}
  using std::string::operator=;

  bool GotErr() const;

  /// The description in an error answer "ERROR:...:description"; the whole text if it has no ":".
  std::string Error() const;

  /// The elements of the list, as by BraidConn::TclSplit.
  std::vector<Response> TclSplit() const;
};

}  // namespace BraidConn
