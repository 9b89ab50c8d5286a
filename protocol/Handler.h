/// Who stands behind a bus server.
#pragma once

#include <string>

#include "protocol/Answer.h"
#include "protocol/Request.h"

namespace protocol {

/// The devices that a server reaches, real or simulated. Called by one thread at a time, with one
/// request after the other, of all clients.
class Handler {
 public:
  Handler() = default;
  Handler(const Handler&) = default;
  Handler& operator=(const Handler&) = default;
  virtual ~Handler() = default;

  /// Executes one request, given as text, and tells what to send for it.
  Answer Execute(std::string_view text);

  /// Burns an image file, given as text, into devices that a request said it is for. Returns the
  /// answer.
  virtual std::string BurnImage(const Guids& devices, const std::string& image) = 0;

  /// What clients are to call the server: I2C, PCI, PPC or IB.
  virtual std::string Type() const = 0;

 private:
  /// May throw Refusal, of the whole request.
  virtual Answer Handle(const Request& request) = 0;
};

}  // namespace protocol
