/// The interface between a bus server and its devices.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "protocol/Answer.h"
#include "protocol/AsyncHandler.h"
#include "protocol/Request.h"

namespace protocol {

/// Devices that answer at once. Called by one thread at a time; the requests of all clients are
/// executed one after the other.
class Handler : public AsyncHandler {
 public:
  /// Executes one request, given as text, and returns its answer.
  Answer Execute(std::string_view text);

  /// Burns an image file, given as text, into the devices that the request before it named. Returns
  /// the answer.
  virtual std::string BurnImage(const Guids& devices, const std::string& image) = 0;

  void Connected(ClientId, const std::string&) override {}
  void Disconnected(ClientId) override {}
  void Start(ClientId client, std::string_view text, std::shared_ptr<Reply> reply) override;
  void StartBurn(ClientId client, const Guids& devices, const std::string& image,
                 std::shared_ptr<Reply> reply) override;

 private:
  /// May throw Refusal: the whole request is refused.
  virtual Answer Handle(const Request& request) = 0;
};

}  // namespace protocol
