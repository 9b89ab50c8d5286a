/// Runs the burner as a child process against a fabric, which this process serves.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "rehearse/Options.h"
#include "sim/Fabric.h"

namespace rehearse {

/// How a run of the burner ended.
struct Run {
  bool is_well = false;
  int signal = 0;       ///< the signal that ended it; 0 where none did
  std::string console;  ///< of a long one only the beginning and the end

  /// The last line of the console.
  std::string LastLine() const;
};

/// Runs the burner, always with the same arguments. Threads may run it at the same time.
class Burner {
 public:
  /// `options` is borrowed.
  Burner(const RehearsalOptions& options, const std::vector<device::Guid>& guids);

  /// Burns into `fabric`. Counts executed requests in `requests`, and kills the burner at the
  /// request `kill_after`. Throws std::runtime_error when the burner cannot be run, or hangs.
  Run Burn(sim::Fabric& fabric, std::atomic<std::size_t>& requests,
           std::size_t kill_after = 0) const;

 private:
  const RehearsalOptions& _options;
  std::string _guids;
};

}  // namespace rehearse
