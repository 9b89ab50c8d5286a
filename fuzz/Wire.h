/// A peer in the same process, in the place of the network: no fuzz target talks to anybody.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fuzz {

/// The other end of the program's connection, from its construction to its destruction; there is
/// one at a time. While there is none, nobody can be connected to.
class Wire {
 public:
  /// What the program finds when it wants more bytes than there are.
  enum End { CLOSED, SILENT, RESET };

  /// No write takes more than `most_sent` bytes, and no read gives more than `most_read`.
  Wire(End end, std::size_t most_sent, std::size_t most_read);
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  virtual ~Wire();

  // What the program's calls come to.
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
