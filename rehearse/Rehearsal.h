/// Rehearses a burn: pulls the plug at every step of it, on simulated devices, and looks whether
/// every device still boots and whether the next burn recovers it. The burner runs as a process of
/// its own; nothing of it is part of this program, which judges it.
#pragma once

#include "rehearse/Options.h"
#include "rehearse/Report.h"

namespace rehearse {

/// Rehearses. Throws std::runtime_error when it cannot.
RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress = {});

}  // namespace rehearse
