#include "protocol/Client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

#include "common/SystemError.h"

namespace protocol {

Client::Client(std::uint16_t port) : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (!_socket.IsOpen() ||
      connect(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    common::ThrowSystemError("can't connect");
  }
}

std::optional<std::string> Client::Ask(std::string_view request,
                                       std::chrono::milliseconds patience) {
  if (!common::SendAll(_socket.Get(), Frame(request))) return {};
  std::array<char, 65536> block;
  while (
      common::WaitUntilReadable(_socket.Get(), -1, std::chrono::steady_clock::now() + patience)) {
    const ssize_t got = recv(_socket.Get(), block.data(), block.size(), 0);
    if (got <= 0) return {};
    for (MessageReader::Event& event :
         _answers.Feed({block.data(), static_cast<std::size_t>(got)})) {
      if (event.kind == MessageReader::Event::MESSAGE) return std::move(event.text);
      if (event.kind == MessageReader::Event::TOO_LONG ||
          !common::SendAll(_socket.Get(), Frame(CONTINUE)))
        return {};
    }
  }
  return {};
}

}  // namespace protocol
