/// The program's own memory interfaces and burn code over a fabric in the same process: every
/// request to the byte, no socket.
#pragma once

#include <iostream>
#include <optional>
#include <sstream>
#include <string>

#include "sim/Fabric.h"
#include "src/BurnAlgorithm.h"
#include "src/RomInterface.h"

namespace sim {

/// Swallows what the burn code says on the console: a simulator's output is its own.
class QuietConsole {
 public:
  QuietConsole() : _console(std::cout.rdbuf(_swallowed.rdbuf())) { _format.copyfmt(std::cout); }
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;
  ~QuietConsole() {
    std::cout.rdbuf(_console);
    std::cout.copyfmt(_format);
  }
  std::string Swallowed() const { return _swallowed.str(); }

 private:
  std::ios _format{nullptr};  ///< the console's, which the burn code changes
  std::ostringstream _swallowed;
  std::streambuf* _console;
};

/// A remote interface whose requests go straight to a fabric, which is borrowed. What a server
/// would do to the connection ends the run, as it would over a socket.
template <typename Remote>
class Local : public Remote {
 public:
  Local(Fabric& fabric, u_int32_t log2_chunk_align) : Remote(log2_chunk_align), _fabric(fabric) {}

  /// The string to open it with; host and port mean nothing.
  std::string ServerString() const { return _fabric.facts.type + ":local:1"; }

 protected:
  BraidResult Connect() override { return BRAID_OK; }

  BraidConn::Response Exchange(const std::string& request) override {
    const Reply reply = _fabric.Execute(request);
    if (reply.manner == Reply::SILENCE) ThrowError("Failed remote read: timeout");
    if (reply.manner != Reply::ANSWER && reply.manner != Reply::CLOSE_AFTER) {
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
  Fabric& _fabric;
  std::optional<GuidVec> _burn_images;
};

using LocalFlash = Local<RemoteFlashInterface>;
using LocalI2c = Local<RemoteI2cInterface>;

/// Which part of an image goes into a device.
struct ImagePart {
  std::optional<u_int32_t> slot;  ///< 0 or 1; all sections where not given
  bool is_valid = true;           ///< whether the slot is left valid
};

/// Burns an image file into one device, past faults and limits of the server, printing nothing.
/// Throws BraidError.
void BurnInto(Fabric& fabric, Guid guid, const std::string& image_file, const ImagePart& part);

}  // namespace sim
