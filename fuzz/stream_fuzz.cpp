// What a hostile server sends, byte for byte, through the client's socket.
#include <fcntl.h>
#include <sys/socket.h>

#include "common/Descriptor.h"
#include "fuzz/Fuzz.h"
#include "src/BraidConn.h"
#include "tests/support/OpenedSocket.h"

namespace {

/// A client whose peer has said all that it will ever say.
class Client : public Opened<BraidConn::ClientSocket> {
 public:
  Client(std::string_view said, bool is_gone) {
    int ends[2];
    fuzz::Must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
    Adopt(ends[0]);
    _peer = common::Descriptor(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    constexpr int ROOM = 1 << 20;
    setsockopt(_peer.Get(), SOL_SOCKET, SO_SNDBUF, &ROOM, sizeof(ROOM));
    const ssize_t sent = send(_peer.Get(), said.data(), said.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    fuzz::Must(said.empty() || sent == static_cast<ssize_t>(said.size()), "a socket takes it all");
    shutdown(_peer.Get(), SHUT_WR);
    if (is_gone) _peer.Close();
    SetMaxBuffer(1 << 16);
    SetMaxSilence(std::chrono::milliseconds(20));  // the peer reads nothing
  }

 private:
  common::Descriptor _peer;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const u_int32_t kind = input.Below(4);
  const bool is_gone = input.Below(4) == 3;
  const std::string_view said = input.Rest();
  if (said.size() > 1 << 15) return 0;
  const Client client(said, is_gone);
  if (kind == 0) {
    // Lines until the end, which is an error.
    const auto error = fuzz::Run([&] {
      while (true) {
        std::string line;
        client.Gets(line);
        fuzz::Must(line.find('\n') == std::string::npos && line.find('\r') == std::string::npos,
                   "a line has no ends inside");
      }
    });
    fuzz::Must(error.has_value(), "a stream ends with an error");
  } else if (kind == 1) {
    fuzz::Run([&] {
      const std::string text(9000, 'x');
      client.Respond(text);
    });
  } else {
    fuzz::Run([&] {
      for (int i = 0; i < 20; ++i) {
        std::string response;
        client.Request("IfcVersion");
        client.Receive(response);
        fuzz::Must(response.size() <= said.size(), "an answer is no longer than what was sent");
      }
    });
  }
  return 0;
}
