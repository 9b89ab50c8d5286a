/// Rehearses a burn on simulated devices: interrupts it at every step, and checks that every device
/// still boots and that the next burn recovers it. The burner runs as a child process. This program
/// judges it, and contains no code of it.
#pragma once

#include "rehearse/Options.h"
#include "rehearse/Report.h"

namespace rehearse {

/// Throws std::runtime_error when the rehearsal is not possible.
RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress = {});

}  // namespace rehearse
