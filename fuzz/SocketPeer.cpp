#include "fuzz/SocketPeer.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "fuzz/Fuzz.h"

// Linked in the places of the functions they are named for. A fuzzed host name may exist, so none
// is looked up.
extern "C" {
int __wrap_connect(int, const sockaddr*, socklen_t);
hostent* __wrap_gethostbyname(const char*);
ssize_t __wrap_sendmsg(int, const msghdr*, int);
ssize_t __wrap_read(int, void*, std::size_t);
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*);

ssize_t __real_sendmsg(int, const msghdr*, int);
ssize_t __real_read(int, void*, std::size_t);
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
}

namespace fuzz {

namespace {

SocketPeer* the_peer = nullptr;
int the_socket = -1;  ///< that is connected to it

}  // namespace

SocketPeer::SocketPeer(End end, std::size_t most_sent, std::size_t most_read)
    : _end(end), _most_sent(most_sent), _most_read(most_read) {
  Must(the_peer == nullptr, "there is one peer at a time");
  the_peer = this;
}

SocketPeer::~SocketPeer() {
  the_peer = nullptr;
  the_socket = -1;
}

std::size_t SocketPeer::Send(std::string_view bytes) {
  bytes = bytes.substr(0, _most_sent);
  _pending += Take(bytes);
  return bytes.size();
}

std::ptrdiff_t SocketPeer::Read(char* into, std::size_t room) {
  const std::size_t count = std::min({room, _most_read, _pending.size()});
  if (count == 0 && _end == RESET) {
    errno = ECONNRESET;
    return -1;
  }
  std::copy_n(_pending.begin(), count, into);
  _pending.erase(0, count);
  return static_cast<std::ptrdiff_t>(count);
}

}  // namespace fuzz

using fuzz::the_peer;
using fuzz::the_socket;

int __wrap_connect(int sock, const sockaddr*, socklen_t) {
  if (the_peer != nullptr) {
    the_socket = sock;
    return 0;
  }
  errno = ECONNREFUSED;
  return -1;
}

hostent* __wrap_gethostbyname(const char*) {
  static in_addr address = {.s_addr = htonl(INADDR_LOOPBACK)};
  static std::array<char*, 2> addresses = {reinterpret_cast<char*>(&address), nullptr};
  static hostent host = {.h_name = nullptr,
                         .h_aliases = nullptr,
                         .h_addrtype = AF_INET,
                         .h_length = sizeof(address),
                         .h_addr_list = addresses.data()};
  if (the_peer != nullptr) return &host;
  h_errno = HOST_NOT_FOUND;
  return nullptr;
}

ssize_t __wrap_sendmsg(int sock, const msghdr* message, int flags) {
  if (the_peer == nullptr || sock != the_socket) return __real_sendmsg(sock, message, flags);
  std::string bytes;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    const iovec& part = message->msg_iov[i];
    bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
  }
  return static_cast<ssize_t>(the_peer->Send(bytes));
}

ssize_t __wrap_read(int fd, void* into, std::size_t room) {
  if (the_peer == nullptr || fd != the_socket) return __real_read(fd, into, room);
  return the_peer->Read(static_cast<char*>(into), room);
}

int __wrap_select(int count, fd_set* to_read, fd_set* to_write, fd_set* others, timeval* limit) {
  // To be written to, a peer is always ready: it takes what it is given.
  const bool is_for_us =
      the_peer != nullptr && the_socket >= 0 && to_read != nullptr && FD_ISSET(the_socket, to_read);
  if (!is_for_us) return __real_select(count, to_read, to_write, others, limit);
  return the_peer->IsReadable() ? 1 : 0;
}
