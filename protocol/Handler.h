/// The interface between a bus server and its devices.
#pragma once

#include <string>

#include "protocol/Answer.h"
#include "protocol/Request.h"

namespace protocol {

/// The devices behind a server, real or simulated. Called by one thread at a time; the requests of
/// all clients are executed one after the other.
class Handler {
 public:
  Handler() = default;
  Handler(const Handler&) = default;
  Handler& operator=(const Handler&) = default;
  virtual ~Handler() = default;

  /// Executes one request, given as text, and returns its answer.
  Answer Execute(std::string_view text);

  /// Burns an image file, given as text, into the devices that the request before it named. Returns
  /// the answer.
  virtual std::string BurnImage(const Guids& devices, const std::string& image) = 0;

  /// The server's type in the address that clients use: I2C, PCI, PPC or IB.
  virtual std::string Type() const = 0;

 private:
  /// May throw Refusal: the whole request is refused.
  virtual Answer Handle(const Request& request) = 0;
};

}  // namespace protocol
