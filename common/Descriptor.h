/// File descriptors: their owner, and reading and writing that is not done in one call.
#pragma once

#include <unistd.h>

#include <chrono>
#include <span>
#include <utility>

namespace common {

/// Owns a file descriptor and closes it; owns none where it is negative.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : _fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_fd, other._fd);
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return _fd; }
  bool IsOpen() const { return _fd >= 0; }
  /// Gives up the descriptor: the caller closes it.
  int Release() { return std::exchange(_fd, -1); }
  void Close() {
    if (_fd >= 0) close(Release());
  }

 private:
  int _fd;
};

/// Writes all of `bytes`, also to a non-blocking descriptor, for which it waits; false, with errno
/// set, where that fails.
bool WriteAll(int fd, std::span<const char> bytes);
/// The same to a socket. A connection that the other end has closed raises no signal.
bool SendAll(int socket, std::span<const char> bytes);

/// Waits until one of two descriptors can be read from; the second may be negative. False when the
/// deadline comes first. Throws std::system_error.
bool WaitUntilReadable(int fd, int other, std::chrono::steady_clock::time_point deadline);

}  // namespace common
