/// The connection to the bus server: lines over TCP, buffers framed by marker lines, and the
/// syntax of answers.
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

/// Longest silence between two bytes. A sector erase keeps the server quiet for seconds; a dead
/// server stays quiet.
inline constexpr std::chrono::seconds MAX_SILENCE{30};

/// Most bytes of one line, its end not counted: what comes after is no answer any more.
inline constexpr u_int32_t MAX_LINE = 1u << 24;

/// Maximum size of one buffer in bytes: all its lines, with their ends and markers. The answer to a
/// read has 18 bytes for each word, "{data 0x12345678}" and a blank, and 6 for each device. About
/// 1,800 devices fit at 32 KiB a read, the largest chunk of a write that is verified.
inline constexpr std::size_t MAX_BUFFER = std::size_t{1} << 28;

/// One TCP socket that exchanges lines. Throws BraidError for what a caller cannot reasonably
/// handle; a closed socket is told by BRAID_ERROR. Used by one caller at a time.
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

  /// Accepts one connection into `new_socket`, which then owns it. The peer's address lands in
  /// this socket's own address.
  BraidResult Accept(Socket& new_socket) const;

  /// Resolves `host` (a name or a dotted address) and connects, waiting as long as the system does.
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
  /// Sends all of `parts`, one after the other, in one write where the system takes them at once;
  /// what is left of them is nothing. Throws when the peer is gone, or takes nothing for
  /// MAX_SILENCE.
  void Send(std::span<std::string_view> parts) const;
  /// Gets; returns how many bytes it took, its end and carriage returns included.
  std::size_t TakeLine(std::string& line) const;
  /// Whether `line` is among what was read ahead of Gets.
  bool HasRead(std::string_view line) const;
  /// Throws what Gets throws when reading fails.
  [[noreturn]] void ThrowReadError(const std::string& reason,
                                   u_int32_t line = __builtin_LINE()) const;

  int _sock = -1;               ///< owned; -1 when closed
  mutable sockaddr_in _addr{};  ///< local address after Bind, the peer's after Connect, Accept
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

  // Read ahead of the line that was asked for: no part of what a caller can see.
  mutable std::vector<char> _buffer;
  mutable std::string_view _received;  ///< what of it no line has taken yet
};

/// A connection that exchanges whole buffers: a small one is a frame of NEW_BUF, content and
/// END_BUF lines; a large one goes in pieces, each agreed to by the peer.
class ClientSocket : public Socket {
 public:
  ClientSocket() { Open(); }

  /// Sends a small buffer; `request` is one line whatever it contains.
  BraidResult Request(const std::string& request) const;

  /// Receives one whole buffer into `response`, its lines joined without separators. Throws for
  /// more than MAX_BUFFER bytes.
  BraidResult Receive(std::string& response) const;

  /// Whether the end of a buffer was read along with what was received, in the same piece of 64 KiB
  /// at most, and is still there. Where no request is outstanding, that is an answer too many:
  /// nobody knows any more which is whose.
  bool HasSurplus() const;

  /// Sends one buffer, in pieces of about 4000 characters. Throws when the peer does not agree to
  /// a further piece.
  BraidResult Respond(const std::string& response) const;

  /// Always false: the transport detects the end of the stream.
  bool Eof() const { return false; }
  BraidResult Flush() { return BRAID_OK; }

 private:
  /// Three lines in one write, the content as it stands.
  void SendFrame(std::string_view head, std::string_view content, std::string_view tail) const;
};

/// Hands the elements of a list to `each`, outermost braces removed, as parts of `text`. Throws
/// BraidError when braces do not balance, at the end, or one opens inside a word.
void TclSplit(std::string_view text, const std::function<void(std::string_view element)>& each);
/// Puts them into `elements`.
void TclSplit(std::string_view text, std::vector<std::string_view>& elements);

/// Whether a text tells an error.
bool TellsError(std::string_view text);

/// An answer of the bus server, or one element of one: a text that may tell an error or be a list
/// of words and braced lists.
class Response : public std::string {
 public:
  Response() = default;
  explicit Response(const std::string& text) : std::string(text) {}
  using std::string::operator=;

  bool GotErr() const;

  /// The description in an error answer "ERROR:...:description", the whole text when it has no ":".
  std::string Error() const;

  /// The elements of the list: see TclSplit above.
  std::vector<Response> TclSplit() const;
};

}  // namespace BraidConn
