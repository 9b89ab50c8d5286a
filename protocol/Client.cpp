#include "protocol/Client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <stdexcept>

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

std::string Client::ReceiveBytes(std::chrono::milliseconds patience) {
  if (!common::WaitUntilReadable(_socket.Get(), -1, std::chrono::steady_clock::now() + patience)) {
    throw std::runtime_error("the server sends nothing");
  }
  std::array<char, 65536> block;
  const ssize_t got = recv(_socket.Get(), block.data(), block.size(), 0);
  return {block.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

std::optional<std::string> Client::Receive(std::chrono::milliseconds patience) try {
  while (true) {
    const std::string bytes = ReceiveBytes(patience);
    if (bytes.empty()) return {};
    for (MessageReader::Event& event : _answers.Feed(bytes)) {
      if (event.kind == MessageReader::Event::MESSAGE) return std::move(event.text);
      if (event.kind == MessageReader::Event::TOO_LONG || !Send(Frame(CONTINUE))) return {};
    }
  }
} catch (const std::runtime_error&) {
  return {};
}

}  // namespace protocol
