/// Reads from the burner's console output how a run ended.
#pragma once

#include <string>
#include <vector>

#include "trials/MisbehavingServer.h"

namespace trials {

/// A device reported as failed.
struct FailedDevice {
  Guid device = 0;
  std::string text;  ///< why
  bool operator==(const FailedDevice&) const = default;
};

/// The devices reported as failed, in the order of the reports.
std::vector<FailedDevice> FailedDevicesIn(const std::string& output);
/// The error that ended the run for all devices, which stands in its last line; empty where none
/// did.
std::string FinalErrorIn(const std::string& output);
/// The assertion on which a run aborted; empty where it did not.
std::string FailedAssertionIn(const std::string& errors);
/// Whether the run ended with status 0 and reports its success.
bool HasSucceeded(const RunOutcome& outcome);

}  // namespace trials
