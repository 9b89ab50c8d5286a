/// A listening socket for tests, trials and measurements: on loopback, with a port of its own.
#pragma once

#include <cstdint>

#include "common/Descriptor.h"

namespace protocol {

/// Listens from its construction on. Throws std::system_error.
class Listener {
 public:
  Listener();

  std::uint16_t Port() const { return _port; }
  /// To wait with: it can be read from when a client has come.
  int Get() const { return _socket.Get(); }

  /// A client's connection; none where no client has come, or it is gone already.
  common::Descriptor TryAccept() const;
  /// Waits for a client; none once Stop is called.
  common::Descriptor Accept() const;
  /// Ends Accept; any thread may call it.
  void Stop() const;

 private:
  common::Descriptor _socket;
  std::uint16_t _port = 0;
};

}  // namespace protocol
