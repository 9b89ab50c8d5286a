/// The server's end of the program's socket, in the same process: no fuzz target opens a
/// connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fuzz {

/// The peer of the program's socket, from its construction to its destruction. There is one at a
/// time; while there is none, connecting fails.
class SocketPeer {
 public:
  /// What the program finds when it wants more bytes than there are.
  enum End { CLOSED, SILENT, RESET };

  /// No write takes more than `most_sent` bytes, and no read gives more than `most_read`.
  SocketPeer(End end, std::size_t most_sent, std::size_t most_read);
  SocketPeer(const SocketPeer&) = delete;
  SocketPeer& operator=(const SocketPeer&) = delete;
  virtual ~SocketPeer();

  // The system calls of the program.
  std::size_t Send(std::string_view bytes);
  bool IsReadable() const { return !_pending.empty() || _end != SILENT; }
  /// -1 with errno, as read has it.
  std::ptrdiff_t Read(char* into, std::size_t room);

 protected:
  /// What comes back for bytes that the program sent.
  virtual std::string Take(std::string_view bytes) = 0;

 private:
  const End _end;
  const std::size_t _most_sent;
  const std::size_t _most_read;
  std::string _pending;
};

}  // namespace fuzz
