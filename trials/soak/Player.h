/// Plays a story: burns disturbed, then one that is not, each held against the rules.
#pragma once

#include <ostream>
#include <string>

#include "tests/support/support.h"
#include "trials/Server.h"
#include "trials/soak/Account.h"

namespace soak {

/// What is changed behind the burner's back, to see that it is found out.
enum class Spoil {
  NOTHING,
  DEVICE,  ///< a byte of one device, when the last run of a story is over
  ORDER,   ///< the order of all that the last run wrote; only where there are two slots
};

/// Plays one story after the other.
class Player {
 public:
  /// Files live in `folder`, which others may use. `program` is the burner. `out` is told all where
  /// it is given. A story where what is spoilt is not found out fails; all others go well.
  Player(const TemporaryFolder& folder, const std::string& program, std::ostream* out, Spoil spoil)
      : _folder(folder), _program(program), _out(out), _spoil(spoil) {}

  Account Play(u_int64_t seed);

 private:
  const TemporaryFolder& _folder;
  std::string _program;
  std::ostream* _out;
  Spoil _spoil;
  faults::Server _server;
};

}  // namespace soak
