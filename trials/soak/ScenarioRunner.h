/// Runs a scenario: burns with injected faults, then one without, and checks each of them.
#pragma once

#include <ostream>
#include <string>

#include "common/ScratchFolder.h"
#include "trials/MisbehavingServer.h"
#include "trials/soak/Statistics.h"

namespace soak {

/// What is changed behind the burner's back, to test that the checks detect it.
enum class Spoil {
  NOTHING,
  DEVICE,  ///< a byte of one device, after the last run of a scenario
  ORDER,   ///< the order of all writes of the last run; only of failsafe burns
};

/// Runs scenarios, one after the other.
class ScenarioRunner {
 public:
  /// Files are written to `folder`, which others may use, too. `program` is the burner. `out`,
  /// where it is not null, gets a full log. With `spoil`, a scenario fails unless the checks detect
  /// it.
  ScenarioRunner(const common::ScratchFolder& folder, const std::string& program, std::ostream* out,
                 Spoil spoil)
      : _folder(folder), _program(program), _out(out), _spoil(spoil) {}

  Statistics Run(std::uint64_t seed);

 private:
  const common::ScratchFolder& _folder;
  std::string _program;
  std::ostream* _out;
  Spoil _spoil;
  trials::MisbehavingServer _server;
};

}  // namespace soak
