/// The burner on trial: a process of its own, against a fabric that is served in this one.
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
  int signal = 0;       ///< that ended it
  std::string console;  ///< how it began and how it ended, where there was more

  /// The last line of the console.
  std::string LastLine() const;
};

/// Runs the burner, always with the same words. Any number of threads may do so at once.
class Burner {
 public:
  /// `options` is borrowed.
  Burner(const RehearsalOptions& options, const std::vector<device::Guid>& guids);

  /// Each request is counted before it is executed; after request `kill_after` the burner is
  /// killed. Throws std::runtime_error when it cannot be run, or hangs.
  Run Burn(sim::Fabric& fabric, std::atomic<std::size_t>& requests,
           std::size_t kill_after = 0) const;

 private:
  const RehearsalOptions& _options;
  std::string _guids;
};

}  // namespace rehearse
