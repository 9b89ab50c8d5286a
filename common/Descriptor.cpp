#include "common/Descriptor.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "common/SystemError.h"

namespace common {

namespace {

using std::chrono::steady_clock;

/// Has `write` take `bytes` piece by piece.
template <typename Write>
bool TakeAll(std::span<const char> bytes, const Write& write) {
  while (!bytes.empty()) {
    const ssize_t written = write(bytes);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool WriteAll(int fd, std::span<const char> bytes) {
  return TakeAll(bytes, [fd](std::span<const char> rest) {
    for (;;) {
      const ssize_t written = write(fd, rest.data(), rest.size());
      if (written >= 0 || errno != EAGAIN) return written;
      pollfd waiting{fd, POLLOUT, 0};
      poll(&waiting, 1, -1);
    }
  });
}

bool SendAll(int socket, std::span<const char> bytes) {
  return TakeAll(bytes, [socket](std::span<const char> rest) {
    return send(socket, rest.data(), rest.size(), MSG_NOSIGNAL);
  });
}

bool WaitUntilReadable(int fd, int other, steady_clock::time_point deadline) {
  pollfd waiting[] = {{fd, POLLIN, 0}, {other, POLLIN, 0}};
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
    const int ready = poll(waiting, 2, left > 0 ? static_cast<int>(left) : 0);
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) ThrowSystemError("can't wait");
  }
}

}  // namespace common
