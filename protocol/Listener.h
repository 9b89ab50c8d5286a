/// A listening socket for tests, trials and measurements: on loopback, with a free port.
#pragma once

#include <cstdint>

#include "common/Descriptor.h"

namespace protocol {

/// Listens as soon as it is constructed, or throws std::system_error.
class Listener {
 public:
  Listener();

  std::uint16_t Port() const { return _port; }
  /// For poll: it becomes readable when a client connects.
  int Get() const { return _socket.Get(); }

  /// A client's connection; closed where no client has connected, or it is gone already.
  common::Descriptor TryAccept() const;
  /// Waits for a client. Returns a closed descriptor once Stop is called.
  common::Descriptor Accept() const;
  /// Ends Accept; any thread may call it.
  void Stop() const;

 private:
  common::Descriptor _socket;
  std::uint16_t _port = 0;
};

}  // namespace protocol
