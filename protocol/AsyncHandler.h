/// The interface between a bus server and devices that take their time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "protocol/Answer.h"

namespace protocol {

/// A connection, from its beginning to its end.
using ClientId = std::uint64_t;

/// Where the answer to one request goes. A connection that has ended meanwhile gets nothing.
class Reply {
 public:
  Reply() = default;
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  virtual ~Reply() = default;

  /// Sends a byte that clients drop: the client goes on waiting.
  virtual void KeepWaiting() = 0;
  /// Sends the answer. Called once; nothing may follow.
  virtual void Send(Answer answer) = 0;
};

/// The devices behind a server. All calls come from the thread that runs the server, and each reply
/// is used there.
class AsyncHandler {
 public:
  AsyncHandler() = default;
  AsyncHandler(const AsyncHandler&) = default;
  AsyncHandler& operator=(const AsyncHandler&) = default;
  virtual ~AsyncHandler() = default;

  /// A client has connected, from `peer`: "ADDRESS:PORT".
  virtual void Connected(ClientId client, const std::string& peer) = 0;
  /// Its connection has ended. What it asked may still be under way.
  virtual void Disconnected(ClientId client) = 0;
  /// Executes one request, given as text, and answers now or later. A client has one request under
  /// way at a time. `text` is valid until this returns. What it throws before it has answered is
  /// the answer: an error of the whole request.
  virtual void Start(ClientId client, std::string_view text, std::shared_ptr<Reply> reply) = 0;
  /// Burns an image, which is the message after a request whose answer has `burn_images`: these are
  /// its devices. Only a handler that gives such answers gets images.
  virtual void StartBurn(ClientId client, const Guids& devices, const std::string& image,
                         std::shared_ptr<Reply> reply) {
    static_cast<void>(client), static_cast<void>(devices), static_cast<void>(image);
    std::exchange(reply, nullptr)->Send({.text = RequestError("images are not burnt")});
  }
  /// The server's type in the address that clients use: I2C, PCI, PPC or IB.
  virtual std::string Type() const = 0;
};

}  // namespace protocol
