#include "protocol/Listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "common/SystemError.h"

namespace protocol {

Listener::Listener() : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  constexpr int BACKLOG = 16;  // clients that may wait
  if (!_socket.IsOpen() || bind(_socket.Get(), any, size) != 0 ||
      listen(_socket.Get(), BACKLOG) != 0 || getsockname(_socket.Get(), any, &size) != 0) {
    common::ThrowSystemError("can't listen");
  }
  _port = ntohs(address.sin_port);
}

common::Descriptor Listener::TryAccept() const {
  return common::Descriptor(accept4(_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
}

common::Descriptor Listener::Accept() const {
  for (;;) {
    pollfd waiting{_socket.Get(), POLLIN, 0};
    if (poll(&waiting, 1, -1) < 0 && errno != EINTR) common::ThrowSystemError("can't wait");
    common::Descriptor client = TryAccept();
    // EINVAL: Stop was called.
    if (client.IsOpen() || errno == EINVAL) return client;
  }
}

void Listener::Stop() const { shutdown(_socket.Get(), SHUT_RDWR); }

}  // namespace protocol
