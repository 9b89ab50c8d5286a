/// The burns that follow the one that is rehearsed: the next one, and one that recovers from an
/// interruption. Each is interrupted, too.
#pragma once

#include <cstddef>
#include <string>

#include "rehearse/Burner.h"
#include "rehearse/Options.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Report.h"
#include "rehearse/Sweep.h"
#include "rehearse/UninterruptedBurn.h"

namespace rehearse {

/// So many recoveries are interrupted, at most. Each is of another kind of state, and costs two
/// burns.
inline constexpr std::size_t MOST_SECOND_INTERRUPTIONS = 8;

/// Why no further burn is rehearsed; empty where some are. Throws std::runtime_error where --at
/// asks for a point of one that is not.
std::string WhyNoFurtherBurns(const RehearsalOptions& options, const UninterruptedBurn& burn);

/// Rehearses burns from the states in which the burn leaves the devices, finished or interrupted.
class FurtherRehearsal {
 public:
  /// All arguments are borrowed.
  FurtherRehearsal(const RehearsalOptions& options, const RehearsedDevices& devices,
                   const Burner& burner, const UninterruptedBurn& burn)
      : _options(options), _devices(devices), _burner(burner), _burn(burn) {}

  /// Burns the same image again when the burn is complete, which writes the other slot, and cuts
  /// the power at every point of that.
  void NextBurn(const RehearsalProgress& progress, RehearsalReport& report) const;

  /// Cuts the power within the burn, one cut for each kind of state, and then at every point of the
  /// burn that recovers from it. From one of those points a third burn must recover.
  void SecondInterruptions(const Situations& situations, const RehearsalProgress& progress,
                           RehearsalReport& report) const;

 private:
  RehearsalReport Interrupt(std::size_t first, std::size_t number) const;

  const RehearsalOptions& _options;
  const RehearsedDevices& _devices;
  const Burner& _burner;
  const UninterruptedBurn& _burn;
};

}  // namespace rehearse
