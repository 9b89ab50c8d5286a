/// Plays a story: burns disturbed, then one that is not, each held against the rules.
#pragma once

#include <ostream>
#include <string>

#include "Account.h"
#include "faults/Server.h"
#include "support.h"

namespace soak {

/// Plays one story after the other.
class Player {
 public:
  /// Files live in `folder`, which others may use. `program` is the burner. `out` is told all where
  /// it is given. With `spoils` a device is changed behind the burner's back, which must be found
  /// out.
  Player(const TemporaryFolder& folder, const std::string& program, std::ostream* out, bool spoils)
      : _folder(folder), _program(program), _out(out), _spoils(spoils) {}

  Account Play(u_int64_t seed);

 private:
  const TemporaryFolder& _folder;
  std::string _program;
  std::ostream* _out;
  bool _spoils;
  faults::Server _server;
};

}  // namespace soak
