/// The program's own memory interfaces and burn code over a fabric in the same process: every
/// request to the byte, no socket.
#pragma once

#include <optional>
#include <string>

#include "sim/Fabric.h"
#include "src/RomInterface.h"

/// A remote interface whose requests go straight to a fabric, which is borrowed. What a server
/// would do to the connection ends the run, as it would over a socket.
template <typename Remote>
class Local : public Remote {
 public:
  Local(sim::Fabric& fabric, u_int32_t log2_chunk_align)
      : Remote(log2_chunk_align), _fabric(fabric) {}

  /// The string to open it with; host and port mean nothing.
  std::string ServerString() const { return _fabric.facts.type + ":local:1"; }

 protected:
  BraidResult Connect() override { return BRAID_OK; }

  BraidConn::Response Exchange(const std::string& request) override {
    const protocol::Answer reply = _fabric.Execute(request);
    if (reply.delivery == protocol::Answer::SILENCE) ThrowError("Failed remote read: timeout");
    if (reply.delivery != protocol::Answer::ANSWER &&
        reply.delivery != protocol::Answer::CLOSE_AFTER) {
      ThrowError("Failed remote read: connection lost");
    }
    _burn_images = reply.burn_images;
    return BraidConn::Response(reply.text);
  }

  BraidConn::Response ExchangeText(const std::string& text) override {
    // A server that agreed to no image takes the text for one more request.
    return BraidConn::Response(_burn_images ? _fabric.BurnImage(*_burn_images, text)
                                            : _fabric.Execute(text).text);
  }

 private:
  sim::Fabric& _fabric;
  std::optional<GuidVec> _burn_images;
};

using LocalFlash = Local<RemoteFlashInterface>;
using LocalI2c = Local<RemoteI2cInterface>;
