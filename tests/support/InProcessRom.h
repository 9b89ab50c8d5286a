/// The burner's memory interfaces on a simulated fabric in the same process: the requests are those
/// of a real burn, but there is no socket.
#pragma once

#include <optional>
#include <string>

#include "sim/Fabric.h"
#include "src/RomInterface.h"

/// A remote interface that passes its requests directly to a fabric, which is borrowed. Where a
/// server would not answer or close the connection, the run ends with an error.
template <typename Remote>
class InProcess : public Remote {
 public:
  InProcess(sim::Fabric& fabric, u_int32_t log2_chunk_align)
      : Remote(log2_chunk_align), _fabric(fabric) {}

  /// The argument for Open. Host and port are not used.
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
    // A server that does not expect an image takes the text as a request.
    return BraidConn::Response(_burn_images ? _fabric.BurnImage(*_burn_images, text)
                                            : _fabric.Execute(text).text);
  }

 private:
  sim::Fabric& _fabric;
  std::optional<GuidVec> _burn_images;
};

using InProcessFlash = InProcess<RemoteFlashInterface>;
using InProcessI2c = InProcess<RemoteI2cInterface>;
