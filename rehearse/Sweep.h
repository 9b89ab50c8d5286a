/// Pulls the plug at every point of a burn and looks whether the device still boots.
#pragma once

#include "rehearse/CleanBurn.h"
#include "rehearse/Options.h"
#include "rehearse/Report.h"
#include "rehearse/Subject.h"

namespace rehearse {

/// Judges every device that booted before at every cut of its log, or at the one that is asked for.
void Sweep(const RehearsalOptions& options, const Subject& subject, const CleanBurn& burn,
           const RehearsalProgress& progress, RehearsalReport& report);

}  // namespace rehearse
