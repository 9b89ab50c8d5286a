/// Exit status of the programs beside fwpush.
#pragma once

namespace common {

enum ExitStatus {
  ALL_WELL = 0,
  DIFFERS = 1,  ///< something failed, or is not as it should be
  CANNOT = 2,   ///< the work could not be done
  USAGE = 64,   ///< the command line is wrong
};

}  // namespace common
