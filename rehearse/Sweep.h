/// Cuts the power at every point of a burn, and checks that the device still boots.
#pragma once

#include "rehearse/Options.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Report.h"
#include "rehearse/UninterruptedBurn.h"

namespace rehearse {

/// Judges every device that booted before the burn, at each cut of its log or only at the one in
/// the options.
void Sweep(const RehearsalOptions& options, const RehearsedDevices& devices,
           const UninterruptedBurn& burn, const RehearsalProgress& progress,
           RehearsalReport& report);

}  // namespace rehearse
