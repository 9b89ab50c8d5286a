/// Plays a story: burns disturbed, then one that is not, each held against the rules.
#pragma once

#include <map>
#include <string>

#include "Story.h"
#include "Trouble.h"
#include "faults/Server.h"
#include "support.h"

namespace soak {

/// What stories came to.
struct Account {
  u_int32_t stories = 0;
  u_int32_t runs = 0;
  std::map<std::string, u_int32_t> kinds;
  std::map<std::string, std::map<std::string, u_int32_t>> ends;  ///< by what went wrong
  /// Devices that may not boot, by row of docs/fail-safety.md, and a story of each.
  std::map<std::string, u_int32_t> rows;
  std::map<std::string, u_int64_t> row_cases;
  u_int32_t burnt = 0;
  u_int32_t failed = 0;
  u_int32_t left_alone = 0;
  u_int32_t judged = 0;  ///< asked whether they boot
  u_int64_t requests = 0;
  u_int64_t bytes = 0;  ///< compared
  std::string failure;  ///< of one story; the first one

  Account& operator+=(const Account& other);
};

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
