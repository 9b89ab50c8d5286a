/// Ownership of file descriptors.
#pragma once

#include <unistd.h>

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

}  // namespace common
